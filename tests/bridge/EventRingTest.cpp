#include "bridge/EventRing.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "tests/support/TemporaryFolder.h"

namespace
{

class EventRingTest : public testing::Test
{
protected:
    // Takes all events that are to be sent.
    static std::string takeAll(EventRing& ring)
    {
        std::string names;
        while (const WaitingEvent* event = ring.next())
        {
            names += event->name;
            ring.taken();
        }
        return names;
    }

    static void add(EventRing& ring, const std::string& names)
    {
        for (const char name : names)
            ring.add(std::string(1, name), "value", 1);
        ring.commit();
    }

    static EventRing::Limits limits(std::size_t events)
    {
        EventRing::Limits limits;
        limits.events = events;
        limits.inMemory = 3;
        return limits;
    }

    TemporaryFolder folder;
    const std::string path = folder / "bridge.db";
};

TEST_F(EventRingTest, eventsComeInTheirOrderAndOnce)
{
    BridgeFile file(path);
    EventRing ring(file, limits(100));
    const std::string many = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    add(ring, many);
    EXPECT_EQ(takeAll(ring), many);
    EXPECT_EQ(takeAll(ring), "");
}

TEST_F(EventRingTest, eventsThatWereNotAcknowledgedAreSentAgain)
{
    BridgeFile file(path);
    EventRing ring(file, limits(100));
    add(ring, "abc");
    takeAll(ring);
    ring.acknowledged(2);
    ring.rewind();
    ring.commit();
    EXPECT_EQ(takeAll(ring), "ac");
}

TEST_F(EventRingTest, aLaterBridgeSendsWhatWaits)
{
    {
        BridgeFile file(path);
        EventRing ring(file, limits(100));
        add(ring, "abc");
        ring.acknowledged(1);
        ring.commit();
    }
    BridgeFile file(path);
    EventRing ring(file, limits(100));
    add(ring, "d");
    ASSERT_NE(ring.next(), nullptr);
    EXPECT_EQ(ring.next()->id, 2);
    EXPECT_EQ(ring.next()->value, "value");
    EXPECT_EQ(takeAll(ring), "bcd");
}

TEST_F(EventRingTest, numbersAreNotUsedAgain)
{
    for (const int64_t id : {1, 2, 3})
    {
        BridgeFile file(path);
        EventRing ring(file, limits(100));
        add(ring, "a");
        ASSERT_NE(ring.next(), nullptr);
        EXPECT_EQ(ring.next()->id, id);
        ring.taken();
        ring.acknowledged(id);
        ring.commit();
    }
}

TEST_F(EventRingTest, theOldestAreDroppedAndCountedBeyondTheLimit)
{
    {
        BridgeFile file(path);
        EventRing ring(file, limits(4));
        add(ring, "abcdefg");
        EXPECT_EQ(ring.dropped(), 3);
        EXPECT_EQ(ring.size(), 4U);
        EXPECT_EQ(takeAll(ring), "defg");
    }
    BridgeFile file(path);
    EXPECT_EQ(EventRing(file, limits(4)).dropped(), 3);
}

TEST_F(EventRingTest, theBytesAreLimitedToo)
{
    BridgeFile file(path);
    EventRing::Limits few = limits(100);
    few.bytes = 18;
    EventRing ring(file, few);
    add(ring, "abcd"); // of 6 bytes each
    EXPECT_EQ(takeAll(ring), "bcd");
    EXPECT_EQ(ring.dropped(), 1);
}

TEST_F(EventRingTest, withoutAFileFewEventsWaitInMemory)
{
    BridgeFile file("");
    EventRing ring(file, limits(100));
    add(ring, "abcde");
    EXPECT_EQ(ring.dropped(), 2);
    EXPECT_EQ(takeAll(ring), "cde");
    ring.acknowledged(3);
    ring.rewind();
    EXPECT_EQ(takeAll(ring), "de");
}

TEST_F(EventRingTest, aCorruptFileIsMovedAsideAndANewOneStarted)
{
    writeFile(path, std::string(8192, 'x'));
    BridgeFile file(path);
    EventRing ring(file, limits(100));
    add(ring, "abcdef");
    EXPECT_EQ(takeAll(ring), "abcdef");
    EXPECT_EQ(readFile(path + ".bad"), std::string(8192, 'x'));
}

TEST_F(EventRingTest, aForeignDatabaseIsMovedAside)
{
    sqlite3* foreign = nullptr;
    sqlite3_open(path.c_str(), &foreign);
    sqlite3_exec(foreign, "CREATE TABLE events (id INTEGER)", nullptr, nullptr, nullptr);
    sqlite3_close(foreign);
    BridgeFile file(path);
    EventRing ring(file, limits(100));
    add(ring, "a");
    EXPECT_EQ(takeAll(ring), "a");
    EXPECT_FALSE(readFile(path + ".bad").empty());
}

TEST_F(EventRingTest, afterAFileThatCannotBeWrittenEventsOfMemoryAreWritten)
{
    const std::string missing = folder / "missing";
    BridgeFile file(missing + "/bridge.db");
    EventRing ring(file, limits(100));
    add(ring, "abcde");
    EXPECT_EQ(ring.dropped(), 2);
    std::filesystem::create_directory(missing);
    file.reopen(Clock::now());
    ring.commit();
    EXPECT_FALSE(ring.hasUnwritten());
    EXPECT_EQ(takeAll(ring), "cde");
    EXPECT_EQ(ring.dropped(), 2);
}

// A limit of the file's size looks like a full disk.
TEST_F(EventRingTest, whileTheDiskIsFullFewEventsWaitInMemoryAndAreWrittenLater)
{
    signal(SIGXFSZ, SIG_IGN);
    BridgeFile file(path);
    EventRing ring(file, limits(100));
    add(ring, "a");
    const rlimit before = []
    {
        rlimit all{};
        getrlimit(RLIMIT_FSIZE, &all);
        return all;
    }();
    const rlimit full{1, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    add(ring, "b");
    EXPECT_FALSE(file.isOpen());
    add(ring, "cde");
    EXPECT_EQ(ring.dropped(), 1); // three have room
    EXPECT_EQ(takeAll(ring), "cde");
    setrlimit(RLIMIT_FSIZE, &before);
    file.reopen(Clock::now() + std::chrono::seconds(2));
    ring.commit();
    EXPECT_FALSE(ring.hasUnwritten());
    ring.rewind();
    EXPECT_EQ(takeAll(ring), "acde");
}

} // namespace
