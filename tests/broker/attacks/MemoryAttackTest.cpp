// No client can use up the broker's memory, and others are served meanwhile.

#include "tests/broker/attacks/Attack.h"
#include "tests/broker/attacks/UnderAttack.h"
#include "tests/support/ProcessMemory.h"
#include "tests/support/WireFrames.h"

namespace
{

constexpr std::size_t mebi = BrokerMemory::mebi;
constexpr std::size_t mostAtPeak = 32 * mebi;
constexpr std::size_t mostAfterwards = 8 * mebi;

constexpr std::size_t megabyte = 1000 * 1000;

// ------------------------------------------------------------------------------------- what they send

std::string repeated(const std::string& text, std::size_t bytes)
{
    std::string all;
    while (all.size() < bytes)
        all += text;
    return all;
}

// A post with this many bytes of values, none of which is too long.
std::string postOfLongValues(const std::string& key, std::size_t bytes, char filler)
{
    constexpr std::size_t longestValue = 60000;
    std::string members;
    for (int number = 0; members.size() < bytes; ++number)
    {
        const std::string value(std::min(longestValue, bytes), filler);
        members += (members.empty() ? "\"" : ",\"") + key + std::to_string(number) + "\":\"" + value + '"';
    }
    return R"({"postStatus":{)" + members + "}}";
}

// They change the values each time.
Attack::Peers posters(int count, std::size_t bytes)
{
    return {count,
            ZmtpPeer::postPort,
            "PUB",
            {ZmtpPeer::message(postOfLongValues("k", bytes, 'x')),
             ZmtpPeer::message(postOfLongValues("k", bytes, 'y'))},
            true};
}

Attack::Peers postersOf(const std::string& post)
{
    return {1, ZmtpPeer::postPort, "PUB", {ZmtpPeer::message(post)}, true};
}

Attack::Peers subscribers(int count, const std::string& subscriptions)
{
    return {count, ZmtpPeer::notifyPort, "SUB", {subscriptions}, false};
}

// They do not read, but send something in the middle of each message.
Attack::Peers talkingSubscribers(int count)
{
    return {count, ZmtpPeer::notifyPort, "SUB", {ZmtpPeer::subscribe(""), ZmtpPeer::cancel("other")}, true};
}

std::string manyPrefixes()
{
    std::string all;
    for (int number = 0; all.size() < 256 * 1024; ++number)
        all += ZmtpPeer::subscribe("{\"statusUpdate\":{\"" + std::to_string(number) + std::string(200, 'x'));
    return all + ZmtpPeer::subscribe("");
}

Attack::Peers unreadingClients(int count, const std::string& request)
{
    return {count, ZmtpPeer::requestPort, "DEALER", {ZmtpPeer::request(request)}, true};
}

// Nearly the most names and nearly the most bytes that a request may have.
std::string requestOfManyNames()
{
    constexpr int most = 9900;
    constexpr int firstNumber = 1000000;
    const std::string filler(90, 'x');
    std::string names;
    for (int number = 0; number < most; ++number)
        names += (number == 0 ? "\"" : ",\"") + std::to_string(firstNumber + number) + filler + "\"";
    return R"({"getClientInfoValues":[)" + names + "]}";
}

std::string unfinishedMessage()
{
    return WireFrames::frame(std::string(megabyte, 'x'), WireFrames::more);
}

std::string emptyFrames()
{
    return repeated(WireFrames::frame("", WireFrames::more), 600 * 1000) + WireFrames::frame("");
}

struct MemoryAttack
{
    std::string name;
    std::vector<Attack::Peers> peers;
    std::size_t bytes;        ///< it sends at least this many
    bool isDeviceFull = true; ///< the device holds as much as it may
    std::string counted{};    ///< the statistic that counts what the broker takes; empty: it may take nothing
};

void PrintTo(const MemoryAttack& attack, std::ostream* to)
{
    *to << attack.name;
}

std::vector<MemoryAttack> memoryAttacks()
{
    const std::string all = R"({"getClientInfo":"null"})";
    const std::string ones = R"({"resetStatus":[)" + repeated("1,", megabyte) + "1]}";
    const Attack::Peers unfinished{900, ZmtpPeer::postPort, "PUB", {unfinishedMessage()}, false};
    const Attack::Peers frames{1, ZmtpPeer::postPort, "PUB", {emptyFrames()}, true};
    return {
        {"onePosterOfLongMessages", {posters(1, megabyte)}, 50 * mebi},
        {"tenPostersOfLongMessages", {posters(10, megabyte)}, 50 * mebi},
        {"aHundredPosters", {posters(100, 10 * 1024)}, 50 * mebi},
        {"aListOfNumbers", {postersOf(ones)}, 10 * mebi},
        {"aMegabyteOfBrackets", {postersOf(std::string(megabyte, '['))}, 10 * mebi},
        {"nineHundredUnfinishedMessages", {unfinished}, 50 * mebi},
        {"threeHundredClientsThatDoNotRead", {unreadingClients(300, all)}, 0, true, "requests.getClientInfo"},
        {"longRequestsOfClientsThatDoNotRead",
         {unreadingClients(20, requestOfManyNames())},
         20 * mebi,
         true,
         "requests.getClientInfoValues"},
        {"twoHundredSubscribersWithManyPrefixes",
         {subscribers(200, manyPrefixes()), posters(1, megabyte)},
         50 * mebi},
        {"twoHundredSubscribersThatDoNotRead",
         {subscribers(200, ZmtpPeer::subscribe("")), posters(1, megabyte)},
         50 * mebi},
        {"twoHundredSubscribersThatStopWithinAMessage",
         {subscribers(200, ZmtpPeer::subscribe("")), posters(1, megabyte)},
         50 * mebi,
         false},
        {"twoHundredSubscribersToAPart",
         {subscribers(200, ZmtpPeer::subscribe(R"({"status)")), posters(1, megabyte)},
         50 * mebi,
         false},
        {"twoHundredSubscribersThatSpeakWithinAMessage",
         {talkingSubscribers(200), posters(1, megabyte)},
         50 * mebi,
         false},
        {"nineHundredSubscribersThatDoNotRead",
         {subscribers(900, ZmtpPeer::subscribe("")), posters(1, 60000)},
         20 * mebi},
        {"emptyFrames", {frames}, 10 * mebi}};
}

class MemoryAttackTest : public UnderAttack, public testing::WithParamInterface<MemoryAttack>
{
protected:
    MemoryAttackTest()
    {
        constexpr int posts = 3;
        if (!GetParam().isDeviceFull)
            return;
        for (int number = 0; number < posts; ++number)
            poster.post(postOfLongValues("k" + std::to_string(number), megabyte, 'x'));
        EXPECT_TRUE(reaches("stored.keys", posts * 17));
    }

    // Requests appear in the statistics with the first request.
    bool isCounted(const std::string& name)
    {
        const auto isThere = [&]
        { return requester.ask(R"({"getBrokerStatistics":"null"})").find('"' + name) != std::string::npos; };
        return name.empty() || eventually(isThere);
    }

    // The newcomer always ends. If the broker gets little of the processor, it may read the attack so slowly
    // that it cannot vouch for the newcomer's post, and reports that. Then the post may still arrive.
    bool isNewcomerServed()
    {
        const std::string value = std::to_string(++mNewcomers);
        TestProcess newcomer({TESTCLIENT, "set", "newcomer", value});
        const std::optional<int> exit = newcomer.waitForExit();
        EXPECT_TRUE(exit == EXIT_SUCCESS || exit == EXIT_FAILURE) << "the newcomer hangs";
        return exit == EXIT_SUCCESS || statistic("limit.memory") != 0 ||
               requester.ask(R"({"getClientInfoValue":"newcomer"})") == reply(value);
    }

private:
    int mNewcomers = 0;
};

} // namespace

TEST_P(MemoryAttackTest, theBrokersMemoryStaysBoundedAndOthersAreServed)
{
    Bystander bystander(requester);
    bystander.expectServed();
    const BrokerMemory memory(broker.process().pid());
    {
        Attack attack(GetParam().peers);
        // Where memory tells nothing, the broker is slow, and a part of the flood serves as well.
        constexpr std::size_t part = isMemoryTelling ? 1 : 16;
        EXPECT_TRUE(attack.isUnderWay(GetParam().bytes / part));
        EXPECT_TRUE(isCounted(GetParam().counted)) << "all were refused";
        bystander.expectServed();
        EXPECT_TRUE(eventually([&] { return isNewcomerServed(); }));
    }
    bystander.expectServed();
    memory.expectPeakWithin(mostAtPeak);
    memory.expectReturnTo(mostAfterwards);
}

INSTANTIATE_TEST_SUITE_P(By, MemoryAttackTest, testing::ValuesIn(memoryAttacks()),
                         [](const auto& attack) { return attack.param.name; });
