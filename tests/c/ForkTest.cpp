// Processes that call fork().

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "statusmanager/helpers/FakeStatusManager.h"
#include "tests/c/Opened.h"
#include "tests/support/OwnProcess.h"

#ifdef __SANITIZE_THREAD__
// ThreadSanitizer otherwise ends a child that has been forked while other threads ran.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options()
{
    return "die_after_fork=0:atexit_sleep_ms=0";
}
#endif

namespace
{

// Runs `child` in a forked process, which must return true and end in time.
template <class Child>
void expectInChild(Child child)
{
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
    {
        alarm(patienceMs / 1000); // a call that waits for ever must not outlive the test
        _exit(child() ? 0 : 1);
    }
    int state = 0;
    ASSERT_EQ(waitpid(pid, &state, 0), pid);
    EXPECT_TRUE(WIFEXITED(state) && WEXITSTATUS(state) == 0);
}

bool isRefusedEverywhere(status_t* status)
{
    status_t* another = nullptr;
    status_item_t* item = nullptr;
    status_values_t* values = nullptr;
    const char* const names[]{"name"};
    const int results[]{status_post(status, "k", "v"),
                        status_post(nullptr, nullptr, nullptr),
                        status_post_event(status, "k", "v", 0),
                        status_get_all(status, -1, &values),
                        status_sync(status, -1),
                        status_ask(status, STATUS_ASK_ALL, nullptr, 0),
                        status_subscribe(status, names, 1),
                        status_unsubscribe(status, names, 1),
                        status_timer_start(status, "t"),
                        status_fd(status),
                        status_next(status, &item),
                        static_cast<int>(status_dropped(status)),
                        status_open(-1, &another),
                        status_open(-1, nullptr),
                        status_close(status)};
    for (const int result : results)
    {
        if (result != STATUS_EFORKED)
            return false;
    }
    return true;
}

} // namespace

TEST(Fork, aChildIsRefused)
{
    status::FakeStatusManager device;
    const Opened opened;
    device.change("a", "1");
    EXPECT_EQ(opened.subscribe({"a"}), STATUS_OK);
    EXPECT_EQ(opened.take(), change("a", "1"));
    expectInChild([&] { return isRefusedEverywhere(opened); });
    EXPECT_EQ(opened.take(), synced()); // the child has taken nothing
    EXPECT_EQ(opened.sync(), STATUS_OK);
}

// A lock that another thread holds during the fork() stays held in the child for ever.
TEST(Fork, aChildOfABusyProcessIsRefusedInTime)
{
    status::FakeStatusManager device;
    const Opened opened;
    EXPECT_EQ(opened.subscribe({"name"}), STATUS_OK);
    std::atomic<bool> stop{false};
    std::thread user(
        [&]
        {
            for (unsigned round = 0; !stop; ++round)
            {
                status_post(opened, "name", std::to_string(round).c_str());
                while (opened.takeNow().kind != 0)
                    continue;
            }
        });
    for (int round = 0; round < 50; ++round)
        expectInChild([&] { return isRefusedEverywhere(opened); });
    stop = true;
    user.join();
}

TEST(Fork, aChildMayReleaseMemoryAndExplainResults)
{
    status::FakeStatusManager device;
    const Opened opened;
    status_values_t* values = nullptr;
    ASSERT_EQ(status_get_all(opened, patienceMs, &values), STATUS_OK);
    expectInChild(
        [&]
        {
            status_free(values);
            return std::string(status_strerror(STATUS_EFORKED)) == "the status was opened before fork()";
        });
    status_free(values);
}

namespace
{

using NewProcess = OwnProcess;

void forksAndOpens()
{
    expectInChild(
        []
        {
            status::FakeStatusManager device;
            status_t* status = nullptr;
            return status_open(patienceMs, &status) == STATUS_OK &&
                   status_post(status, "k", "v") == STATUS_OK &&
                   status_sync(status, patienceMs) == STATUS_OK && status_close(status) == STATUS_OK;
        });
}

// Later children of this process are in a new container.
bool canEnterContainer()
{
    return unshare(CLONE_NEWPID) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWPID) == 0;
}

// The first process of a container opens, and begins another container. Both processes have the number 1.
// LeakSanitizer cannot look at a process after it has entered, so only processes that end by _exit() enter.
void forksIntoAContainer()
{
    const auto opensAndForks = []
    {
        status::FakeStatusManager device;
        const Opened opened;
        if (!canEnterContainer())
            return false;
        expectInChild([&] { return getpid() == 1 && isRefusedEverywhere(opened); });
        return !testing::Test::HasFailure();
    };
    expectInChild(
        [&]
        {
            if (!canEnterContainer())
                return false;
            expectInChild(opensAndForks);
            return !testing::Test::HasFailure();
        });
}

} // namespace

TEST_F(NewProcess, mayForkBeforeItOpens)
{
    EXPECT_IN_OWN_PROCESS(forksAndOpens());
}

// May be skipped: kernels may keep namespaces to root. The build server tests as root. Elsewhere the other
// tests of this file have children with numbers of their own.
TEST_F(NewProcess, isNotTakenForAnotherOfTheSameNumber)
{
    if (const pid_t pid = fork(); pid == 0)
        _exit(canEnterContainer() ? 0 : 1);
    int state = 0;
    wait(&state);
    if (state != 0)
        GTEST_SKIP() << "this process may make no namespaces";
    EXPECT_IN_OWN_PROCESS(forksIntoAContainer());
}
