// The broker's writes to its state file, and their times.

#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/broker/Messages.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/RawClient.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

// How long a test watches that nothing comes.
constexpr std::chrono::milliseconds quiet{300};

constexpr const char* heldFile = "ANNOUNCED_SYNC"; // see AnnouncedSync.cpp

// The regular files that the process has open.
std::set<std::string> filesOf(pid_t process)
{
    std::set<std::string> files;
    const std::string descriptors = "/proc/" + std::to_string(process) + "/fd";
    for (const auto& descriptor : std::filesystem::directory_iterator(descriptors))
    {
        std::error_code gone; // the descriptor that reads the folder is gone again
        if (std::filesystem::is_regular_file(descriptor, gone))
            files.insert(std::filesystem::read_symlink(descriptor));
    }
    return files;
}

class KeepingTest : public testing::Test
{
protected:
    KeepingTest() { setenv(heldFile, hold.c_str(), 1); }
    ~KeepingTest() override { unsetenv(heldFile); }

    // Ends the previous broker first.
    void start(std::vector<std::string> options = {})
    {
        broker.reset();
        options.insert(options.begin(), {"--state", folder / "state"});
        broker = std::make_unique<BrokerProcess>(options);
    }

    void holdTheStorage() { writeFile(hold, ""); }
    void releaseTheStorage() { std::filesystem::remove(hold); }

    bool isHeld() { return broker->process().waitForError("sync is held"); }

    // How often the broker has waited for the storage.
    int syncs()
    {
        const std::string line = "sync\n";
        const std::string text = broker->process().errors();
        int count = 0;
        for (std::size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
            ++count;
        return count;
    }

    // How often it waits for the storage for a change, and at its end.
    std::pair<int, int> syncsOfAChangeAndTheEnd()
    {
        RawPoster poster;
        RawRequester requester;
        const int before = syncs();
        poster.post(postOf("k", "1"));
        EXPECT_EQ(valueOf(requester, "k"), reply("1"));
        const int changed = syncs();
        EXPECT_EQ(broker->stop(), 0);
        return {changed - before, syncs() - changed};
    }

    TemporaryFolder folder;
    const std::string hold = folder / "hold";
    std::unique_ptr<BrokerProcess> broker;
};

} // namespace

TEST_F(KeepingTest, nothingIsPublishedBeforeItIsKept)
{
    start({"--state-sync=full"});
    RawPoster poster;
    RawSubscriber subscriber(poster);
    holdTheStorage();
    poster.post(postOf("k", "1"));
    ASSERT_TRUE(isHeld());
    ASSERT_EQ(subscriber.receiveText(quiet), "");
    releaseTheStorage();
    EXPECT_EQ(subscriber.receiveText(), R"({"statusUpdate":{"k":"1"}})");
}

TEST_F(KeepingTest, noRequestIsAnsweredBeforeWhatItChangesIsKept)
{
    start({"--state-sync=full"});
    RawRequester requester;
    EXPECT_EQ(valueOf(requester, "k"), reply("")); // connects
    holdTheStorage();
    requester.send({R"({"incrementCounter":"c"})"});
    ASSERT_TRUE(isHeld());
    ASSERT_FALSE(requester.receive(quiet));
    releaseTheStorage();
    EXPECT_TRUE(requester.receive());
}

TEST_F(KeepingTest, withSyncOffItNeverWaitsForTheStorage)
{
    start({"--state-sync=off"});
    syncsOfAChangeAndTheEnd();
    EXPECT_EQ(syncs(), 0);
}

TEST_F(KeepingTest, withSyncNormalItWaitsForTheStorageAtTheEnd)
{
    start({"--state-sync=normal"});
    const auto [change, end] = syncsOfAChangeAndTheEnd();
    EXPECT_EQ(change, 0);
    EXPECT_GT(end, 0);
}

TEST_F(KeepingTest, withSyncFullItWaitsForTheStorageWithEachChange)
{
    start({"--state-sync=full"});
    EXPECT_GT(syncsOfAChangeAndTheEnd().first, 0);
}

TEST_F(KeepingTest, onlyTheNamesThatAreToldAreKept)
{
    const std::vector<std::string> keys{"--state-keys=net.*", "--state-keys=disk"};
    start(keys);
    RawPoster poster;
    poster.post(R"({"postStatus":{"net.a":"1","disk":"1","other":"1"}})");
    EXPECT_EQ(RawRequester().ask(R"({"getClientInfo":"null"})"), R"({"disk":"1","net.a":"1","other":"1"})");
    broker->stop();
    start();
    EXPECT_EQ(RawRequester().ask(R"({"getClientInfo":"null"})"), R"({"disk":"1","net.a":"1"})");
}

TEST_F(KeepingTest, rowsBeyondTheLimitsAreNotLoadedAndCounted)
{
    start();
    RawPoster poster;
    for (const char* name : {"a", "b", "c", "much longer name"})
    {
        poster.post(postOf(name, "1"));
        poster.post(std::string(R"({"startTimer":")") + name + "\"}");
        poster.post(std::string(R"({"setCounterValue":{")") + name + "\":1}}");
    }
    poster.post(postOf("a", std::string(200, 'x')));
    EXPECT_EQ(valueOf(*std::make_unique<RawRequester>(), "a"), reply(std::string(200, 'x')));
    EXPECT_EQ(broker->stop(), 0);

    start({"--max-key-bytes=10", "--max-value-bytes=100", "--max-keys=1", "--max-timers=1",
           "--max-counters=2"});
    RawRequester requester;
    EXPECT_EQ(requester.ask(R"({"getClientInfo":"null"})"), R"({"b":"1"})");
    EXPECT_EQ(brokerStatistic(requester, "stored.timers"), 1U);
    EXPECT_EQ(brokerStatistic(requester, "stored.counters"), 2U);
    EXPECT_EQ(brokerStatistic(requester, "limit.keys"), 1U) << "c";
    EXPECT_EQ(brokerStatistic(requester, "limit.timers"), 2U) << "b and c";
    EXPECT_EQ(brokerStatistic(requester, "limit.counters"), 1U) << "c";
    EXPECT_TRUE(broker->process().waitForError("rows beyond the limits are not loaded, 4 or more"))
        << "the three with the long name, and the long value";
}

TEST_F(KeepingTest, withoutAStateFileNothingIsWritten)
{
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder / ""); // also the broker's
    broker = std::make_unique<BrokerProcess>();
    std::filesystem::current_path(before);
    RawPoster poster;
    RawRequester requester;
    poster.post(postOf("k", "1"));
    poster.post(R"({"startTimer":"t"})");
    EXPECT_EQ(valueOf(requester, "k"), reply("1"));
    EXPECT_FALSE(requester.ask(R"({"incrementCounter":"c"})").empty());

    const std::set<std::string> inherited = filesOf(getpid());
    for (const std::string& file : filesOf(broker->process().pid()))
        EXPECT_EQ(inherited.count(file), 1U) << file;
    EXPECT_EQ(brokerStatistic(requester, "state.commits"), 0U);
    EXPECT_EQ(broker->stop(), 0);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / ""), {}), 0);
}

TEST_F(KeepingTest, whatIsDamagedWhileItServesIsWrittenAnew)
{
    start();
    RawPoster poster;
    const std::string longValue(50000, 'x'); // 60 of them exceed SQLite's memory
    for (int key = 0; key < 60; ++key)
        poster.post(postOf("k" + std::to_string(key), longValue));
    poster.post(R"({"setCounterValue":{"c":5}})");
    RawRequester requester;
    ASSERT_TRUE(eventually([&] { return valueOf(requester, "k59") == reply(longValue); }));
    EXPECT_EQ(broker->stop(), 0);

    start();
    const std::string file = folder / "state";
    writeFile(file, std::string(readFile(file).size(), 'Z'));
    RawPoster another;
    for (int key = 0; key < 30; ++key)
        another.post(postOf("k" + std::to_string(key), "new"));
    RawRequester asking;
    EXPECT_EQ(valueOf(asking, "k29"), reply("new"));
    EXPECT_TRUE(broker->process().waitForError("moved to"));
    broker->kill();

    start();
    RawRequester afterwards;
    EXPECT_EQ(valueOf(afterwards, "k0"), reply("new"));
    EXPECT_EQ(valueOf(afterwards, "k59"), reply(longValue));
    EXPECT_EQ(afterwards.ask(R"({"getCounterValue":"c"})"), "5");
}

TEST_F(KeepingTest, whatIsRemovedWhileItServesIsWrittenAnew)
{
    start();
    RawPoster poster;
    RawRequester requester;
    poster.post(postOf("before", "1"));
    EXPECT_EQ(valueOf(requester, "before"), reply("1"));
    std::filesystem::remove(folder / "state");
    std::filesystem::remove(folder / "state-wal");
    std::string after;
    const bool isWritten = eventually( // checked once a second, with changes
        [&]
        {
            after += 'x';
            poster.post(postOf("after", after));
            return valueOf(requester, "after") == reply(after) && std::filesystem::exists(folder / "state");
        });
    EXPECT_TRUE(isWritten);
    broker->kill();

    start();
    RawRequester afterwards;
    EXPECT_EQ(valueOf(afterwards, "before"), reply("1"));
    EXPECT_EQ(valueOf(afterwards, "after"), reply(after));
}

TEST_F(KeepingTest, whatCouldNotBeWrittenIsWrittenWhenItCanBeThoughNothingElseChanges)
{
    const std::string later = folder / "later";
    broker = std::make_unique<BrokerProcess>(std::vector<std::string>{"--state", later + "/state"});
    RawPoster poster;
    RawRequester requester;
    poster.post(postOf("k", "1"));
    EXPECT_EQ(valueOf(requester, "k"), reply("1"));
    std::filesystem::create_directory(later);
    EXPECT_TRUE(broker->process().waitForError("can be written again"));
    EXPECT_EQ(brokerStatistic(requester, "state.commits"), 1U);
}

TEST_F(KeepingTest, aFileThatMayNotGrowIsAFullDisk)
{
    start();
    const pid_t process = broker->process().pid();
    rlimit before{};
    ASSERT_EQ(prlimit(process, RLIMIT_FSIZE, nullptr, &before), 0);
    const rlimit full{0, before.rlim_max};
    ASSERT_EQ(prlimit(process, RLIMIT_FSIZE, &full, nullptr), 0);
    RawPoster poster;
    RawRequester requester;
    poster.post(postOf("k", "1"));
    EXPECT_EQ(valueOf(requester, "k"), reply("1"));
    ASSERT_TRUE(broker->process().waitForError("changes will be lost when the broker ends"));
    ASSERT_EQ(prlimit(process, RLIMIT_FSIZE, &before, nullptr), 0);
    EXPECT_TRUE(broker->process().waitForError("can be written again"));
    broker->kill();
    start();
    RawRequester another;
    EXPECT_EQ(valueOf(another, "k"), reply("1"));
}
