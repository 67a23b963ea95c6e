#include "common/EventThread.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sched.h>
#include <system_error>

#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

namespace Orvane
{

namespace
{

// The signals of abort() and of a fault of the thread itself. If they were blocked, the kernel would end the
// process without calling its handlers. A crash handler must work on every thread.
constexpr std::array<int, 7> faults{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT};

// A thread inherits its creator's signal mask. Blocking signals around the creation, instead of in the new
// thread, leaves no moment at which the new thread could receive a signal. Fault signals that the creator has
// blocked stay blocked: unblocked, a signal that waits for a signalfd would be delivered and end the process.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t signals;
        sigfillset(&signals);
        for (const int fault : faults)
            sigdelset(&signals, fault);
        pthread_sigmask(SIG_BLOCK, &signals, &mPrevious);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &mPrevious, nullptr); }

    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t mPrevious;
};

void require(int error, const char* what)
{
    if (error != 0)
        throw std::system_error(error, std::generic_category(), what);
}

class Attributes
{
public:
    explicit Attributes(std::size_t stackSize)
    {
        require(pthread_attr_init(&mAttributes), "Failed to start an event thread");
        mError = pthread_attr_setstacksize(&mAttributes, stackSize);
    }
    ~Attributes() { pthread_attr_destroy(&mAttributes); }

    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    const pthread_attr_t* get() const
    {
        require(mError, "Bad stack size of an event thread");
        return &mAttributes;
    }

private:
    pthread_attr_t mAttributes;
    int mError;
};

// Allocates nothing, because the new thread has no caller to which it could report a failure.
void nameCurrentThread(const char* name)
{
    std::array<char, 16> shown{}; // the kernel keeps 15 bytes
    snprintf(shown.data(), shown.size(), "%s", name);
    pthread_setname_np(pthread_self(), shown.data());
}

void raiseCurrentThread(const char* name, int priority)
{
    sched_param parameters{};
    parameters.sched_priority = priority;
    const int error = pthread_setschedparam(pthread_self(), SCHED_RR, &parameters);
    if (error != 0)
        OV_LOG(2, "Thread [%s] runs without real-time priority %d: %s", name, priority, strerror(error));
}

} // namespace

struct EventThread::Start
{
    EventThread* thread;
    int priority;
};

EventThread::EventThread(const char* name, int priority) : EventThread(name, priority, defaultStackSize()) {}

// std::thread cannot set a stack size.
EventThread::EventThread(const char* name, int priority, std::size_t stackSize) : EventDispatcher(name)
{
    const Attributes attributes(stackSize);
    auto start = std::make_unique<Start>(Start{this, priority});
    const SignalsBlocked blocked;
    require(pthread_create(&mThread, attributes.get(), &EventThread::enter, start.get()),
            "Failed to start an event thread");
    static_cast<void>(start.release()); // now owned by the new thread
}

std::size_t EventThread::defaultStackSize()
{
    return std::size_t{1024} * VESKCOMMON_EVENT_THREAD_STACK_KIB;
}

EventThread::~EventThread()
{
    stop();
}

void EventThread::stop()
{
    requestStop();
    constexpr const char* failure = "Failed to end an event thread";
    if (isThreadCurrent())
        require(EDEADLK, failure);
    if (mThread != pthread_t{})
        require(pthread_join(mThread, nullptr), failure);
    mThread = pthread_t{};
    dropAll();
}

// Nothing throws here. The dispatcher catches each exception that leaves an agent, and logs it or passes it
// to the sender.
void* EventThread::enter(void* start) noexcept
{
    const std::unique_ptr<Start> own(static_cast<Start*>(start));
    own->thread->main(own->priority);
    return nullptr;
}

void EventThread::main(int priority)
{
    // A non-virtual call: a derived class's constructor may still be writing the virtual table pointer.
    const char* const name = EventDispatcher::getName();
    nameCurrentThread(name);
    if (priority > 0)
        raiseCurrentThread(name, priority);
    run();
}

} // namespace Orvane
