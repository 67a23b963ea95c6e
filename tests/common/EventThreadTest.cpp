#include <array>
#include <csignal>
#include <cstdint>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <system_error>
#include <thread>

#include "common/EventAgent.h"
#include "common/EventThread.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sanitized.h"

using namespace Orvane;

namespace
{

// What a thread tells of itself.
struct Inspection
{
    void look()
    {
        std::array<char, 16> buffer{};
        pthread_getname_np(pthread_self(), buffer.data(), buffer.size());
        kernelName = buffer.data();
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        sched_param parameters{};
        pthread_getschedparam(pthread_self(), &policy, &parameters);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stackSize);
        pthread_attr_destroy(&attributes);
    }

    std::string kernelName;
    sigset_t blocked{};
    int policy = -1;
    std::size_t stackSize = 0;
};

Inspection inspect(EventThread& thread)
{
    Inspection inspection;
    (OV_NEW SyncEventAgent0<Inspection>(&inspection, &Inspection::look))->send(&thread);
    return inspection;
}

} // namespace

TEST(EventThreadTest, keepsItsFullNameOfWhichTheKernelShowsFifteenBytes)
{
    EventThread thread("ProcessStatusMessage", 0);
    EXPECT_STREQ(thread.getName(), "ProcessStatusMessage");
    EXPECT_EQ(inspect(thread).kernelName, "ProcessStatusMe");
}

TEST(EventThreadTest, aNameOfFifteenBytesIsShownWhole)
{
    EventThread thread("fifteen bytes..", 0);
    EXPECT_EQ(inspect(thread).kernelName, "fifteen bytes..");
}

TEST(EventThreadTest, theNameMayBeEmpty)
{
    EventThread thread("", 0);
    EXPECT_STREQ(thread.getName(), "");
    EXPECT_EQ(inspect(thread).kernelName, "");
}

TEST(EventThreadTest, hasTheDocumentedStackWhateverTheProcessesLimitIs)
{
    EventThread thread("stack", 0);
    EXPECT_EQ(EventThread::defaultStackSize(), (isSanitized ? 8U : 1U) * 1024U * 1024U);
    EXPECT_EQ(inspect(thread).stackSize, EventThread::defaultStackSize());
}

TEST(EventThreadTest, hasTheStackThatItIsGiven)
{
    EventThread thread("stack", 0, 3 * 1024 * 1024);
    const std::size_t size = inspect(thread).stackSize;
    EXPECT_GE(size, 3U * 1024U * 1024U);
    EXPECT_TRUE(size < 4U * 1024U * 1024U || isSanitized) << size; // they choose another
}

TEST(EventThreadTest, withAStackThatTheSystemRefusesIsNotStarted)
{
    EXPECT_THROW(EventThread("stack", 0, 1), std::system_error);
}

namespace
{

// Not SIGKILL and SIGSTOP, nor those that the C library or an emulator keeps for itself.
sigset_t allBlockableSignals()
{
    sigset_t blocked;
    std::thread(
        [&blocked]
        {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_BLOCK, &all, nullptr);
            pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        })
        .join();
    return blocked;
}

} // namespace

TEST(EventThreadTest, blocksSignalsButThoseOfACrashAndLeavesItsCreatorsMaskAlone)
{
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    EventThread thread("signals", 0);
    const Inspection inspection = inspect(thread);
    sigset_t expected = allBlockableSignals();
    EXPECT_EQ(sigismember(&expected, SIGTERM), 1);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
        sigdelset(&expected, fault);
    for (int signal = 1; signal <= SIGRTMAX; ++signal)
        EXPECT_EQ(sigismember(&inspection.blocked, signal), sigismember(&expected, signal)) << signal;
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int signal = 1; signal < 32; ++signal)
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
}

TEST(EventThreadTest, priorityZeroIsTheNormalSchedulingClass)
{
    const LogCapture log;
    EventThread thread("normal", 0);
    EXPECT_EQ(inspect(thread).policy, SCHED_OTHER);
    EXPECT_TRUE(log.lines().empty());
}

TEST(EventThreadTest, aRefusedPriorityIsLoggedAndTheThreadRunsNormally)
{
    const LogCapture log;
    EventThread thread("eager", 1000); // no such priority: refused to the privileged, too
    EXPECT_EQ(inspect(thread).policy, SCHED_OTHER);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines().front().level, 2);
    EXPECT_EQ(log.lines().front().text.rfind("Thread [eager] runs without real-time priority 1000: ", 0), 0U);
}

TEST(EventThreadTest, aPositivePriorityAsksForRoundRobin)
{
    const LogCapture log;
    EventThread thread("real time", 1);
    const int policy = inspect(thread).policy;
    // Granted or refused, which depends on the privileges of whoever runs this, and never without a word.
    EXPECT_EQ(policy, log.lines().empty() ? SCHED_RR : SCHED_OTHER);
}

TEST(EventThreadTest, stoppingTwiceDoesNothingMore)
{
    EventThread thread("stopped", 0);
    thread.stop();
    thread.stop();
    EXPECT_EQ(thread.getPendingCount(), 0U);
}

TEST(EventThreadTest, cannotWaitForItselfToStopAndIsWaitedForAtItsEndAllTheSame)
{
    struct Self
    {
        void stop()
        {
            EXPECT_THROW(thread.stop(), std::system_error);
            isRefused = true;
        }
        bool isRefused = false; // outlives the thread
        EventThread thread{"itself", 0};
    } self;
    (OV_NEW SyncEventAgent0<Self>(&self, &Self::stop))->send(&self.thread);
    EXPECT_TRUE(self.isRefused);
}

TEST(EventThreadTest, runsUntilItIsStopped)
{
    EventThread thread("running", 0);
    for (int count = 0; count < 3; ++count)
        EXPECT_EQ(inspect(thread).kernelName, "running");
    thread.stop();
    EXPECT_EQ(inspect(thread).kernelName, ""); // not delivered any more
}

TEST(EventThreadTest, throwsWhenNoThreadCanBeStartedAndLeavesItsCreatorsMaskAlone)
{
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    EXPECT_THROW(EventThread("never", 0, SIZE_MAX / 4 * 3),
                 std::system_error); // no machine has room for that
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int signal = 1; signal < 32; ++signal)
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
}
