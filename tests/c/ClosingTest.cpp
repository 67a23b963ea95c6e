// The end of an open status.

#include <atomic>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>
#include <vector>

#include "statusmanager/helpers/FakeStatusManager.h"
#include "tests/c/Opened.h"

namespace
{

class Closing : public testing::Test
{
protected:
    static status_t* open()
    {
        status_t* status = nullptr;
        EXPECT_EQ(status_open(patienceMs, &status), STATUS_OK);
        return status;
    }

    static void expectClosed(status_t* status)
    {
        status_item_t* item = nullptr;
        char* value = nullptr;
        const char* const names[]{"name"};
        EXPECT_EQ(status_close(status), STATUS_ECLOSED);
        EXPECT_EQ(status_post(status, "k", "v"), STATUS_ECLOSED);
        EXPECT_EQ(status_get(status, "k", patienceMs, &value), STATUS_ECLOSED);
        EXPECT_EQ(status_sync(status, patienceMs), STATUS_ECLOSED);
        EXPECT_EQ(status_ask(status, STATUS_ASK_ALL, nullptr, 0), STATUS_ECLOSED);
        EXPECT_EQ(status_subscribe(status, names, 1), STATUS_ECLOSED);
        EXPECT_EQ(status_unsubscribe_events(status, names, 1), STATUS_ECLOSED);
        EXPECT_EQ(status_fd(status), STATUS_ECLOSED);
        EXPECT_EQ(status_next(status, &item), STATUS_ECLOSED);
        EXPECT_EQ(status_dropped(status), STATUS_ECLOSED);
    }

    // The manager's thread is busy until `gate` opens.
    void holdManager(Gate& gate)
    {
        mHolder = std::thread([this, &gate] { device.hold(gate); });
        ASSERT_TRUE(device.isHeld.wait());
    }

    void TearDown() override
    {
        if (mHolder.joinable())
            mHolder.join();
        // A question that was under way at a close still uses the device.
        EXPECT_EQ(Opened().sync(), STATUS_OK);
    }

    // A fake whose thread can be kept busy, like the thread of a manager that waits for the broker.
    class Device : public status::FakeStatusManager
    {
    public:
        ~Device() override { mThread.stop(); }

        void hold(Gate& gate)
        {
            if (!mThread.isThreadCurrent())
                return Orvane::callAndWait(OV_SITE, mThread, this, &Device::wait, &gate);
        }

        Gate isHeld;

    private:
        void wait(Gate* gate)
        {
            isHeld.open();
            gate->wait();
        }
    };

    Device device;

private:
    std::thread mHolder;
};

std::size_t descriptors()
{
    DIR* const folder = opendir("/proc/self/fd");
    std::size_t count = 0;
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}

} // namespace

TEST_F(Closing, everyUseAfterItIsRefused)
{
    status_t* const status = open();
    EXPECT_EQ(status_close(status), STATUS_OK);
    expectClosed(status);
}

TEST_F(Closing, anotherStatusIsNotTakenForAClosedOne)
{
    status_t* const closed = open();
    EXPECT_EQ(status_close(closed), STATUS_OK);
    const Opened another;
    EXPECT_NE(static_cast<status_t*>(another), closed);
    expectClosed(closed);
    EXPECT_EQ(another.sync(), STATUS_OK);
}

TEST_F(Closing, itReturnsItsDescriptor)
{
    status_close(open());
    const std::size_t before = descriptors();
    for (int count = 0; count < 100; ++count)
    {
        status_t* const status = open();
        EXPECT_EQ(fcntl(status_fd(status), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(status_close(status), STATUS_OK);
    }
    EXPECT_EQ(descriptors(), before);
}

TEST_F(Closing, aProcessHasALimitedNumberOpen)
{
    std::vector<status_t*> all;
    for (int count = 0; count < STATUS_OPEN_MOST; ++count)
        all.push_back(open());
    status_t* status = nullptr;
    EXPECT_EQ(status_open(patienceMs, &status), STATUS_EFULL);
    EXPECT_EQ(status, nullptr);
    EXPECT_EQ(status_close(all.back()), STATUS_OK);
    all.back() = open();
    for (status_t* const each : all)
        EXPECT_EQ(status_close(each), STATUS_OK);
}

TEST_F(Closing, itDoesNotWaitForTheManager)
{
    Gate gate;
    status_t* const status = open();
    const char* const names[]{"name"};
    holdManager(gate);
    EXPECT_EQ(status_subscribe(status, names, 1), STATUS_OK);
    EXPECT_EQ(status_unsubscribe(status, names, 1), STATUS_OK);
    EXPECT_EQ(status_ask(status, STATUS_ASK_ALL, nullptr, 0), STATUS_OK);
    EXPECT_EQ(status_close(status), STATUS_OK);
    EXPECT_FALSE(gate.isOpen());
    gate.open();
    EXPECT_TRUE(device.sync(0));
    EXPECT_TRUE(device.sync(0));
}

TEST_F(Closing, postsMadeBeforeAreSent)
{
    Gate gate;
    status_t* const status = open();
    holdManager(gate);
    EXPECT_EQ(status_post(status, "last", "post"), STATUS_OK);
    EXPECT_EQ(status_close(status), STATUS_OK);
    gate.open();
    EXPECT_EQ(device.posted(), (StatusMap{{"last", "post"}}));
}

TEST_F(Closing, itEndsTheQuestionsOfOtherThreads)
{
    Gate gate;
    status_t* const status = open();
    holdManager(gate);
    std::thread asker([&] { EXPECT_EQ(status_sync(status, -1), STATUS_ECLOSED); });
    // The question waits for the manager's thread, or is about to.
    EXPECT_EQ(status_close(status), STATUS_OK);
    asker.join();
    gate.open();
}

TEST_F(Closing, aThreadIsCancelledAfterACall)
{
    Gate gate;
    status_t* const status = open();
    holdManager(gate);
    struct Asker
    {
        status_t* status;
        std::atomic<int> result{1};
    } asker{status};
    pthread_t thread{};
    const auto ask = [](void* argument) -> void*
    {
        auto* const self = static_cast<Asker*>(argument);
        self->result = status_sync(self->status, -1);
        pthread_testcancel();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, ask, &asker), 0);
    ASSERT_EQ(pthread_cancel(thread), 0);
    gate.open();
    void* end = nullptr;
    ASSERT_EQ(pthread_join(thread, &end), 0);
    EXPECT_EQ(end, PTHREAD_CANCELED);
    EXPECT_EQ(asker.result, STATUS_OK);
    EXPECT_EQ(status_close(status), STATUS_OK);
}

TEST_F(Closing, whileOtherThreadsUseTheStatusIsHarmless)
{
    for (int round = 0; round < 50; ++round)
    {
        status_t* const status = open();
        std::atomic<unsigned> rounds{0};
        std::vector<std::thread> users;
        for (int thread = 0; thread < 3; ++thread)
        {
            users.emplace_back(
                [status, &rounds]
                {
                    const char* const names[]{"name"};
                    int result = STATUS_OK;
                    while (result != STATUS_ECLOSED)
                    {
                        status_item_t* item = nullptr;
                        result = status_post(status, "name", "value");
                        status_subscribe(status, names, 1);
                        const int asked = status_ask(status, STATUS_ASK_SYNC, nullptr, 0);
                        EXPECT_TRUE(asked == STATUS_OK || asked == STATUS_EFULL || asked == STATUS_ECLOSED);
                        if (status_next(status, &item) == 1)
                            status_free(item);
                        ++rounds;
                    }
                });
        }
        EXPECT_TRUE(eventually([&] { return rounds >= 10; }));
        EXPECT_EQ(status_close(status), STATUS_OK);
        for (std::thread& user : users)
            user.join();
    }
}
