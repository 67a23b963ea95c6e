#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "common/Calls.h"
#include "common/EventThread.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sanitized.h"
#include "tests/support/Wait.h"

using namespace Orvane;

namespace
{

// Properties of a thread, read on that thread.
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
    EXPECT_TRUE(size < 4U * 1024U * 1024U || isSanitized) << size; // sanitizers choose another size
}

TEST(EventThreadTest, withAStackThatTheSystemRefusesIsNotStarted)
{
    EXPECT_THROW(EventThread("stack", 0, 1), std::system_error);
}

namespace
{

// All signals except SIGKILL, SIGSTOP, and the signals that the C library or an emulator reserves.
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

// ----------------------------------------------------------------------------------------- crash, children

namespace
{

std::atomic<int> trapsHandled{0};

} // namespace

// A program may receive such a signal by signalfd() or sigwait().
TEST(EventThreadTest, leavesBlockedWhatItsCreatorHasBlocked)
{
    struct sigaction handler
    {
    };
    struct sigaction before
    {
    };
    handler.sa_handler = [](int) { ++trapsHandled; };
    sigaction(SIGTRAP, &handler, &before);
    sigset_t trap;
    sigset_t mask;
    sigemptyset(&trap);
    sigaddset(&trap, SIGTRAP);
    pthread_sigmask(SIG_BLOCK, &trap, &mask);
    kill(getpid(), SIGTRAP);
    {
        EventThread thread("signals", 0);
        const Inspection inspection = inspect(thread);
        EXPECT_EQ(sigismember(&inspection.blocked, SIGTRAP), 1);
        EXPECT_EQ(sigismember(&inspection.blocked, SIGABRT), 0);
    }
    EXPECT_EQ(trapsHandled, 0);
    const timespec atOnce{};
    EXPECT_EQ(sigtimedwait(&trap, nullptr, &atOnce), SIGTRAP); // still pending
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    sigaction(SIGTRAP, &before, nullptr);
}

namespace
{

constexpr int handled = 42;

// Causes a fault that the kernel reports for this thread, unlike a signal sent to it.
struct Faulty
{
    void touchForbiddenMemory()
    {
        void* const page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        *static_cast<volatile char*>(page) = 1;
    }
};

void crashWithAHandler()
{
    signal(SIGSEGV, [](int) { _exit(handled); });
    Faulty faulty;
    EventThread thread("crash", 0);
    callAndWait(OV_SITE, thread, &faulty, &Faulty::touchForbiddenMemory);
}

// A program started by an agent, in both ways that the header describes.
class Child
{
public:
    enum class Mask
    {
        Inherited,
        Emptied,
    };

    explicit Child(Mask mask)
    {
        EventThread thread("parent", 0);
        callAndWait(OV_SITE, thread, this, &Child::start, mask);
    }

    ~Child()
    {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }

    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void terminate() { kill(mPid, SIGTERM); }

    // The signal that ended it before the deadline; 0 if none did.
    int endingSignal()
    {
        siginfo_t end{};
        eventually(
            [&]
            {
                waitid(P_PID, static_cast<id_t>(mPid), &end, WEXITED | WNOWAIT | WNOHANG);
                return end.si_pid != 0;
            });
        return end.si_code == CLD_KILLED ? end.si_status : 0;
    }

    // Whether the kernel lists the signal in this line of the process's status: "SigBlk", "ShdPnd".
    bool lists(const std::string& name, int signal)
    {
        std::ifstream status("/proc/" + std::to_string(mPid) + "/status");
        std::string word;
        while (status >> word && word != name + ":")
            continue;
        uint64_t signals = 0;
        status >> std::hex >> signals;
        return (signals >> (signal - 1) & 1) != 0;
    }

private:
    // Returns when the program runs: exec() then closes the pipe.
    void start(Mask mask)
    {
        std::array<int, 2> pipe{};
        ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
        mPid = fork();
        if (mPid == 0)
        {
            sigset_t none;
            sigemptyset(&none);
            if (mask == Mask::Emptied)
                sigprocmask(SIG_SETMASK, &none, nullptr);
            execlp("sleep", "sleep", "300", nullptr);
            _exit(1);
        }
        close(pipe[1]);
        char none = 0;
        EXPECT_EQ(read(pipe[0], &none, 1), 0);
        close(pipe[0]);
    }

    pid_t mPid = -1;
};

} // namespace

TEST(EventThreadDeathTest, aCrashHandlerWorksOnIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(crashWithAHandler(), testing::ExitedWithCode(handled), "");
}

TEST(EventThreadTest, aChildOfACallbackInheritsItsMaskAndIsNotEndedBySigterm)
{
    Child child(Child::Mask::Inherited);
    EXPECT_TRUE(child.lists("SigBlk", SIGTERM));
    EXPECT_FALSE(child.lists("SigBlk", SIGSEGV));
    child.terminate();
    EXPECT_TRUE(child.lists("ShdPnd", SIGTERM)); // still pending
}

TEST(EventThreadTest, aChildOfACallbackWithAnEmptyMaskIsEndedBySigterm)
{
    Child child(Child::Mask::Emptied);
    EXPECT_FALSE(child.lists("SigBlk", SIGTERM));
    child.terminate();
    EXPECT_EQ(child.endingSignal(), SIGTERM);
}

// ------------------------------------------------------------------------------------------ priority, life

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
    EventThread thread("eager", 1000); // invalid: refused even to root
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
    // Granted or refused, by the privileges of this process. A refusal is always logged.
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
    EXPECT_EQ(inspect(thread).kernelName, ""); // no longer delivered
}

TEST(EventThreadTest, throwsWhenNoThreadCanBeStartedAndLeavesItsCreatorsMaskAlone)
{
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    EXPECT_THROW(EventThread("never", 0, SIZE_MAX / 4 * 3),
                 std::system_error); // no machine has that much memory
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int signal = 1; signal < 32; ++signal)
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
}

namespace
{

// Counts calls of getName(). Outside the object, which may not be constructed yet.
std::atomic<int> timesAsked{0};

class NamedThread : public EventThread
{
public:
    NamedThread() : EventThread("named", 0) {}
    ~NamedThread() override { stop(); }

    const char* getName() override
    {
        ++timesAsked;
        return EventThread::getName();
    }

    void nothing() {}
};

} // namespace

// The thread starts while the derived class is still being constructed.
TEST(EventThreadTest, namesItselfWithoutAskingADerivedClass)
{
    for (int round = 0; round < 200; ++round)
    {
        NamedThread thread;
        callAndWait(OV_SITE, thread, &thread, &NamedThread::nothing); // it has its name when this returns
        ASSERT_EQ(timesAsked, 0) << "round " << round;
    }
}
