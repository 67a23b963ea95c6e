#include "common/EventDispatcher.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <list>
#include <map>
#include <mutex>
#include <semaphore.h>
#include <string>
#include <utility>

#include "common/EventAgent.h"
#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

namespace Orvane
{

namespace
{

using Clock = std::chrono::steady_clock; // monotonic: this product sets the wall clock

// The dispatcher whose loop runs on this thread. A thread-local answers isThreadCurrent() without a lock.
thread_local const EventDispatcher* currentDispatcher = nullptr;

// Signals the end of a call to the waiting sender, on whose stack it stands. It may be destroyed as soon as
// wait() returns, even while complete() still runs. A semaphore allows that, a condition variable does not.
class Completion
{
public:
    Completion() { sem_init(&mDone, 0, 0); }
    ~Completion() { sem_destroy(&mDone); }

    Completion(const Completion&) = delete;
    Completion& operator=(const Completion&) = delete;

    void fail(std::exception_ptr exception) { mException = std::move(exception); }

    void complete() { sem_post(&mDone); }

    void wait()
    {
        while (sem_wait(&mDone) != 0)
            continue; // a signal handler ran
        if (mException)
            std::rethrow_exception(mException);
    }

private:
    sem_t mDone;
    std::exception_ptr mException; // written before mDone, read after it
};

void logEscapedException(const char* dispatcher)
{
    try
    {
        throw;
    }
    catch (const std::exception& exception)
    {
        OV_LOG(0, "Exception left a call on dispatcher [%s]: %s", dispatcher, exception.what());
    }
    catch (...)
    {
        OV_LOG(0, "Exception of unknown type left a call on dispatcher [%s]", dispatcher);
    }
}

// A queue's count on one agent and, if its sender waits, the duty to release that sender. Delivered or
// dropped, the entry releases the count before it releases the sender. So a waiting sender is the last holder
// of its agent.
class QueuedAgent
{
public:
    explicit QueuedAgent(EventAgent* agent, Completion* completion = nullptr)
        : mAgent(agent), mReceiver(agent->getDeliveryTarget()), mCompletion(completion)
    {
    }

    QueuedAgent(QueuedAgent&& other) noexcept
        : mAgent(std::move(other.mAgent)), mReceiver(other.mReceiver),
          mCompletion(std::exchange(other.mCompletion, nullptr))
    {
    }

    QueuedAgent& operator=(QueuedAgent&& other) noexcept
    {
        std::swap(mAgent, other.mAgent);
        std::swap(mReceiver, other.mReceiver);
        std::swap(mCompletion, other.mCompletion);
        return *this;
    }

    ~QueuedAgent() { end(); }

    void end()
    {
        mAgent = SmartPtr<EventAgent>();
        if (mCompletion != nullptr)
            std::exchange(mCompletion, nullptr)->complete();
    }

    EventAgent* agent() const { return mAgent.get(); }
    void* receiver() const { return mReceiver; }

    void deliver(const char* dispatcher)
    {
        try
        {
            mAgent->deliver();
        }
        catch (...)
        {
            if (mCompletion != nullptr)
                mCompletion->fail(std::current_exception());
            else
                logEscapedException(dispatcher);
        }
    }

private:
    SmartPtr<EventAgent> mAgent; // null after end()
    void* mReceiver;             // kept, so that no agent is called under the lock
    Completion* mCompletion;
};

// Agents move between the lists as nodes, so only queueing an agent needs memory. Nothing can fail
// afterwards, least of all dropping it.
using Agents = std::list<QueuedAgent>;

} // namespace

struct EventDispatcher::Queue
{
    explicit Queue(const char* queueName) : name(queueName) {}

    const std::string name;

    std::mutex mutex; // guards all below; not held while an agent is delivered or released
    std::condition_variable changed;
    Agents ready;
    Agents spare;                                     // nodes of ended agents, reused by later posts
    std::multimap<Clock::time_point, Agents> delayed; // one agent per list; equal times keep their order
    bool stopped = false;
    bool asleep = false; // the loop waits for `changed`

    // Moves due agents behind the ready ones. push() calls it too, so that a later post does not overtake an
    // agent that is already due.
    void admitDue()
    {
        if (delayed.empty())
            return;
        const auto end = delayed.upper_bound(Clock::now());
        for (auto entry = delayed.begin(); entry != end; entry = delayed.erase(entry))
            ready.splice(ready.end(), entry->second);
    }

    // Wakes the loop without holding the lock, which the loop needs at once. Meanwhile the agent may have
    // been delivered and may have destroyed the dispatcher. The shared pointer keeps the queue alive.
    static void enqueue(std::shared_ptr<Queue> queue, QueuedAgent agent)
    {
        if (queue->push(agent))
            queue->changed.notify_one();
    }

    // Returns whether the caller must wake the loop. A stopped dispatcher leaves `agent` alone; its
    // destructor then releases the sender.
    bool push(QueuedAgent& agent)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (stopped)
            return false;
        admitDue();
        if (spare.empty())
            ready.push_back(std::move(agent));
        else
        {
            ready.splice(ready.end(), spare, spare.begin());
            ready.back() = std::move(agent);
        }
        return std::exchange(asleep, false);
    }

    // Replaces the ended `agent` by the next one to deliver, and waits for it. Empties `agent` when the
    // dispatcher has stopped.
    void pop(Agents& agent)
    {
        constexpr std::size_t mostSpare = 64;
        std::unique_lock<std::mutex> lock(mutex);
        if (spare.size() < mostSpare)
            spare.splice(spare.begin(), agent);
        agent.clear();
        while (!stopped)
        {
            admitDue();
            if (!ready.empty())
            {
                agent.splice(agent.end(), ready, ready.begin());
                break;
            }
            asleep = true;
            if (delayed.empty())
                changed.wait(lock);
            else
                changed.wait_until(lock, Clock::time_point(delayed.begin()->first));
            asleep = false;
        }
    }

    // Removes and returns every waiting agent that `matches`. The caller destroys them without the lock.
    template <class Matches>
    Agents take(Matches matches)
    {
        Agents taken;
        const std::lock_guard<std::mutex> lock(mutex);
        for (auto entry = ready.begin(); entry != ready.end();)
        {
            const auto next = std::next(entry);
            if (matches(*entry))
                taken.splice(taken.end(), ready, entry);
            entry = next;
        }
        for (auto entry = delayed.begin(); entry != delayed.end();)
        {
            const auto next = std::next(entry);
            if (matches(entry->second.front()))
            {
                taken.splice(taken.end(), entry->second);
                delayed.erase(entry);
            }
            entry = next;
        }
        return taken;
    }
};

IEventDispatcher::~IEventDispatcher() = default;

EventDispatcher::EventDispatcher(const char* name) : mQueue(std::make_shared<Queue>(name)) {}

EventDispatcher::~EventDispatcher()
{
    dropAll();
}

void EventDispatcher::sendAndWait(EventAgent* agent)
{
    if (isThreadCurrent())
        return agent->deliver();

    Completion completion;
    Queue::enqueue(mQueue, QueuedAgent(agent, &completion));
    completion.wait();
}

void EventDispatcher::post(EventAgent* agent)
{
    Queue::enqueue(mQueue, QueuedAgent(agent));
}

void EventDispatcher::postDelayed(EventAgent* agent, uint32_t delayMs)
{
    QueuedAgent held(agent); // releases the agent if the list cannot be allocated
    Agents entry;
    entry.push_back(std::move(held));
    const std::lock_guard<std::mutex> lock(mQueue->mutex);
    if (mQueue->stopped)
        return;
    mQueue->delayed.emplace(Clock::now() + std::chrono::milliseconds(delayMs), std::move(entry));
    mQueue->changed.notify_one();
}

void EventDispatcher::removeAgentsByReceiver(void* receiver)
{
    mQueue->take([receiver](const QueuedAgent& entry) { return entry.receiver() == receiver; });
}

bool EventDispatcher::removeAgent(EventAgent* agent)
{
    return !mQueue->take([agent](const QueuedAgent& entry) { return entry.agent() == agent; }).empty();
}

void EventDispatcher::dropAll()
{
    mQueue->take([](const QueuedAgent&) { return true; });
}

std::size_t EventDispatcher::getPendingCount()
{
    const std::lock_guard<std::mutex> lock(mQueue->mutex);
    return mQueue->ready.size() + mQueue->delayed.size();
}

const char* EventDispatcher::getName()
{
    return mQueue->name.c_str();
}

bool EventDispatcher::isThreadCurrent()
{
    return currentDispatcher == this;
}

void EventDispatcher::run()
{
    const EventDispatcher* const outer = std::exchange(currentDispatcher, this);
    Agents agent;
    for (mQueue->pop(agent); !agent.empty(); mQueue->pop(agent))
    {
        agent.front().deliver(mQueue->name.c_str());
        agent.front().end();
    }
    currentDispatcher = outer; // an agent of another dispatcher may have run this loop
}

void EventDispatcher::requestStop()
{
    const std::lock_guard<std::mutex> lock(mQueue->mutex);
    mQueue->stopped = true;
    mQueue->changed.notify_one();
}

} // namespace Orvane
