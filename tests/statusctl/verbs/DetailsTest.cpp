// show, get --long and dump --long, with a real broker and with a scripted broker.

#include <gtest/gtest.h>
#include <mutex>
#include <set>
#include <sstream>
#include <unistd.h>

#include "statusctl/text/Json.h"
#include "statusctl/text/Timestamp.h"
#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ProgramName.h"
#include "tests/support/ScriptedBroker.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

Json::Value detailsOf(const Words& words)
{
    const Outcome outcome = statusctl(words);
    EXPECT_EQ(outcome.code, 0) << outcome;
    return JsonText::readObject(outcome.output).value_or(Json::Value())["details"];
}

// The scripted answer, and the keys of each request, in order.
class DetailsScript
{
public:
    explicit DetailsScript(std::string answer)
    {
        mBroker.answerWith(
            [this,
             answer = std::move(answer)](const std::string& request) -> std::optional<ScriptedBroker::Frames>
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                mRequests.push_back(request);
                return ScriptedBroker::Frames{answer};
            });
    }

    std::vector<std::string> requests()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mRequests;
    }

private:
    std::mutex mMutex;
    std::vector<std::string> mRequests;
    ScriptedBroker mBroker{ScriptedBroker::FirstAnswer::AtOnce}; // its thread ends first
};

constexpr const char* oneKey =
    R"({"statusDetails":{"door":{"value":"a\u001b[31m\nb","posted":1780000000123456,"changed":0,"posts":3,)"
    R"("changes":2,"poster":{"user":"net","uid":7,"service":"net.service","program":"x\ny","pid":12},)"
    R"("changer":{"user":"root","uid":0,"program":"sh","pid":9}}}})";

} // namespace

TEST(DetailsTest, showPrintsAllThatIsKnown)
{
    BrokerProcess broker;
    ZmtpPeer posting(ZmtpPeer::postPort);
    ASSERT_TRUE(posting.shakeHands());
    ASSERT_TRUE(posting.write(ZmtpPeer::message(R"({"postStatus":{"door":"open"}})")));
    const std::string us = "process " + std::to_string(getpid()) + " (" + kernelNameOf("ToolTest") + ")";
    EXPECT_TRUE(eventually([&] { return statusctl({"show", "door"}).output.find(us) != std::string::npos; }));
    const Outcome outcome = statusctl({"show", "door"});
    std::istringstream lines(outcome.output);
    Words labels;
    for (std::string line; std::getline(lines, line);)
        labels.push_back(line.substr(0, line.find(' ', 2)));
    EXPECT_EQ(labels, (Words{"door", "  value", "  posted", "  changed", "  posts", "  changes", "  poster"}))
        << outcome;
    EXPECT_NE(outcome.output.find("  value    open\n"), std::string::npos) << outcome;
    EXPECT_NE(outcome.output.find("s ago)\n"), std::string::npos) << outcome;
    EXPECT_NE(outcome.output.find("  posts    1\n"), std::string::npos) << outcome;
}

TEST(DetailsTest, textsOfTheBrokerAreEscaped)
{
    DetailsScript script(oneKey);
    const std::string output = statusctl({"show", "door"}).output;
    EXPECT_NE(output.find("  value    a\\x1b[31m\\nb\n"), std::string::npos) << output;
    EXPECT_NE(output.find("  poster   net.service, user net, process 12 (x\\ny)\n"), std::string::npos)
        << output;
    EXPECT_NE(output.find("  changed  unknown\n"), std::string::npos) << output;
    EXPECT_NE(output.find("  changer  user root, process 9 (sh)\n"), std::string::npos) << output;
}

TEST(DetailsTest, showTakesGlobs)
{
    BrokerProcess broker;
    statusctl({"set", "net.rx", "1", "net.tx", "2", "disk", "3"});
    const Json::Value details = detailsOf({"-j", "show", "net.*", "net.rx"});
    ASSERT_EQ(details.size(), 2U);
    EXPECT_EQ(details[0U]["key"], "net.rx");
    EXPECT_EQ(details[1U]["key"], "net.tx");
}

TEST(DetailsTest, aKeyOrGlobThatIsNotThereIsExitCode3)
{
    BrokerProcess broker;
    statusctl({"set", "door", "open"});
    const Outcome outcome = statusctl({"show", "door", "lamp", "x*"});
    EXPECT_EQ(outcome.code, 3);
    EXPECT_EQ(outcome.output.substr(0, 5), "door\n") << outcome;
    EXPECT_EQ(outcome.errors, "statusctl: show: no value for \"lamp\", \"x*\"\n");
    EXPECT_EQ(statusctl({"get", "--long", "door", "lamp"}),
              failure(3, "statusctl: get: no value for \"lamp\""));
}

TEST(DetailsTest, asJsonTimesAreAsEverywhere)
{
    BrokerProcess broker;
    const Timestamp::Time before = Timestamp::now();
    statusctl({"set", "door", "open"});
    statusctl({"set", "door", "shut"});
    statusctl({"set", "door", "shut"});
    for (const Words& words :
         {Words{"-j", "show", "door"}, Words{"-j", "get", "--long", "door"}, Words{"-j", "dump", "--long"}})
    {
        const Json::Value door = detailsOf(words)[0U];
        EXPECT_EQ(door["value"], "shut");
        EXPECT_EQ(door["posts"], 3);
        EXPECT_EQ(door["changes"], 2);
        EXPECT_EQ(door["poster"]["uid"].asUInt(), getuid());
        const auto posted = Timestamp::read(door["posted"].asString());
        const auto changed = Timestamp::read(door["changed"].asString());
        ASSERT_TRUE(posted && changed) << door.toStyledString();
        EXPECT_GT(*posted, *changed);
        EXPECT_GT(*changed, before);
    }
}

TEST(DetailsTest, theLongFormIsATable)
{
    DetailsScript script(oneKey);
    const Outcome outcome = statusctl({"get", "--long", "door"});
    std::istringstream lines(outcome.output);
    Words words;
    for (std::string word; lines >> word;)
        words.push_back(word);
    ASSERT_EQ(words.size(), 12U) << outcome;
    EXPECT_EQ(Words(words.begin(), words.begin() + 10),
              (Words{"KEY", "VALUE", "CHANGED", "AGE", "POSTS", "POSTER", "door", "a\\x1b[31m\\nb", "-",
                     words[9]}));
    EXPECT_EQ(words[10], "3");
    EXPECT_EQ(words[11], "net.service");
}

TEST(DetailsTest, aClientThatIsNoServiceIsShownAsUserAndProgram)
{
    DetailsScript script(R"({"statusDetails":{"door":{"poster":{"user":"root","program":"net.service"}}}})");
    const std::string output = statusctl({"get", "--long", "door"}).output;
    EXPECT_NE(output.find(" root (net.service)\n"), std::string::npos) << output;
}

TEST(DetailsTest, theTableCutsLongValuesOffBetweenCharacters)
{
    BrokerProcess broker;
    std::string start;
    for (int character = 0; character < 40; ++character)
        start += "\u00e9";
    statusctl({"set", "long", start + "x", "short", start});
    const std::string output = statusctl({"dump", "--long"}).output;
    EXPECT_NE(output.find(start + "...  "), std::string::npos) << output;
    EXPECT_NE(output.find(start + "     "), std::string::npos) << output;
}

TEST(DetailsTest, manyKeysAreAskedForInSeveralRequests)
{
    DetailsScript script(R"({"statusDetails":{}})");
    Words words{"show"};
    for (int key = 0; key < 2001; ++key)
        words.push_back("k" + std::to_string(key));
    EXPECT_EQ(statusctl(words).code, 3);
    const std::vector<std::string> requests = script.requests();
    ASSERT_EQ(requests.size(), 3U);
    std::set<std::string> asked;
    for (const std::string& request : requests)
    {
        const Json::Value keys = JsonText::readObject(request).value_or(Json::Value())["getStatusDetails"];
        EXPECT_LE(keys.size(), 1000U);
        for (const Json::Value& key : keys)
            asked.insert(key.asString());
    }
    EXPECT_EQ(asked.size(), 2001U);
}

TEST(DetailsTest, aBrokerThatDoesNotTellIsExitCode5)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    for (const Words& words : {Words{"show", "door"}, Words{"get", "--long", "door"}})
        EXPECT_EQ(statusctl(words), failure(5, "statusctl: " + words[0] +
                                                   ": this broker does not report when values were posted"));
}

TEST(DetailsTest, aBadReplyIsExitCode5)
{
    for (const char* reply : {"nonsense", R"({"statusDetails":{"door":5}})"})
    {
        DetailsScript script(reply);
        EXPECT_EQ(statusctl({"show", "door"}),
                  failure(5, std::string("statusctl: show: bad reply from the broker: ") + reply));
    }
}
