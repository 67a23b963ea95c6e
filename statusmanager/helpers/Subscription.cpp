#include "statusmanager/helpers/Subscription.h"

#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "common/Calls.h"
#include "statusmanager/helpers/DispatcherLink.h"
#include "statusmanager/helpers/EndNotice.h"
#include "statusmanager/helpers/ManagerAccess.h"

namespace status
{

namespace
{

using OnStatus = std::function<void(const StatusMap&)>;
using OnEvent = std::function<void(const std::string&, const std::string&)>;

} // namespace

/// The listener behind a subscription. The manager's registry and queued agents refer to it by a plain
/// pointer, so it outlives them: each of the two threads, the manager's and the callback's, holds it through
/// an EndNotice, until leaveManager() or leaveThread() has run there or the thread has ended.
class SubscriptionListener final : public IStatusUpdateListener,
                                   public std::enable_shared_from_this<SubscriptionListener>
{
public:
    SubscriptionListener(StatusManager& manager, Orvane::EventThread& thread, OnStatus onStatus,
                         OnEvent onEvent)
        : mManager(manager), mDispatcher(thread), mOnStatus(std::move(onStatus)), mOnEvent(std::move(onEvent))
    {
    }

    void begin()
    {
        holdUntilEndOf(ManagerAccess::threadOf(mManager), mToManager);
        holdUntilEndOf(mDispatcher, mToThread);
        mManager.registerListener(this, &mToThread);
    }

    void end() noexcept
    {
        const bool inside = refuseCalls();
        try
        {
            postLast(mToThread, &SubscriptionListener::leaveThread);
            postLast(mToManager, &SubscriptionListener::leaveManager);
        }
        catch (const std::bad_alloc&)
        {
            // It stays registered, silent, until both threads have ended.
        }
        if (!inside)
            dropCallbacksAfterCall();
    }

    void onStatusUpdate(StatusMap updates) override
    {
        call([&] { mOnStatus(updates); });
    }

    void onEventUpdate(std::string name, std::string value) override
    {
        call([&] { mOnEvent(name, value); });
    }

private:
    // Ends a call, however it is left.
    class Call
    {
    public:
        explicit Call(SubscriptionListener& listener) : mListener(listener) {}
        ~Call() { mListener.finishCall(); }

        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

    private:
        SubscriptionListener& mListener;
    };

    template <class Make>
    void call(Make make)
    {
        if (!beginCall())
            return;
        const Call call(*this);
        make();
    }

    bool beginCall()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mEnded)
            return false;
        mCaller = std::this_thread::get_id();
        return true;
    }

    void finishCall()
    {
        if (isEnded())
            dropCallbacks(); // before the end of the call is reported, to a thread that waits for both
        const std::lock_guard<std::mutex> lock(mMutex);
        mCaller = std::thread::id();
        mCallFinished.notify_all();
    }

    // True inside the callback: there is no waiting for its end.
    bool refuseCalls()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEnded = true;
        return mCaller == std::this_thread::get_id();
    }

    bool isEnded()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mEnded;
    }

    void dropCallbacksAfterCall()
    {
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mCallFinished.wait(lock, [this] { return mCaller == std::thread::id(); });
        }
        dropCallbacks();
    }

    // By one thread: the one that makes a call, or, while there is none, the one that ended the subscription.
    void dropCallbacks()
    {
        mOnStatus = nullptr;
        mOnEvent = nullptr;
    }

    void holdUntilEndOf(Orvane::EventDispatcher& dispatcher, DispatcherLink& link)
    {
        link.open(dispatcher);
        std::shared_ptr<void> held(&link, [hold = shared_from_this(), &link](void*) { link.cut(); });
        EndNotice::post(dispatcher, &link, std::move(held));
    }

    void postLast(DispatcherLink& link, void (SubscriptionListener::*leave)())
    {
        link.postLast(Orvane::makeCall<Orvane::AsyncEventAgent>(OV_SITE, this, leave));
    }

    // On the callback's thread, behind all calls that were sent to it. This may be the end of the listener.
    void leaveThread() { mDispatcher.removeAgentsByReceiver(&mToThread); }

    // On the manager's thread, behind the registration. The asynchronous way to unregister: the thread that
    // ends a subscription must not wait for a manager that waits for a silent broker. This may be the end of
    // the listener.
    void leaveManager()
    {
        ManagerAccess::removeListener(mManager, this);
        ManagerAccess::threadOf(mManager).removeAgentsByReceiver(&mToManager);
    }

    StatusManager& mManager;          // until mToManager is cut; on the manager's thread, or by on()
    Orvane::EventThread& mDispatcher; // until mToThread is cut; on that thread, or by on()
    DispatcherLink mToManager;
    DispatcherLink mToThread;

    std::mutex mMutex; // guards these three
    std::condition_variable mCallFinished;
    std::thread::id mCaller; // the thread that is in the callback
    bool mEnded = false;

    OnStatus mOnStatus; // see dropCallbacks()
    OnEvent mOnEvent;
};

Subscription::Subscription() noexcept = default;

Subscription::Subscription(std::shared_ptr<SubscriptionListener> listener) noexcept
    : mListener(std::move(listener))
{
}

Subscription::~Subscription()
{
    cancel();
}

Subscription::Subscription(Subscription&& other) noexcept = default;

Subscription& Subscription::operator=(Subscription&& other) noexcept
{
    if (this != &other)
    {
        cancel();
        mListener = std::move(other.mListener);
    }
    return *this;
}

void Subscription::cancel() noexcept
{
    if (const auto listener = std::exchange(mListener, nullptr))
        listener->end();
}

Subscription on(StatusKeys keys, Orvane::EventThread& thread, OnStatus callback, StatusManager& manager)
{
    Subscription subscription(
        std::make_shared<SubscriptionListener>(manager, thread, std::move(callback), nullptr));
    subscription.mListener->begin();
    manager.registerForStatus(subscription.mListener.get(), std::move(keys));
    return subscription;
}

Subscription onEvent(EventKeys names, Orvane::EventThread& thread, OnEvent callback, StatusManager& manager)
{
    Subscription subscription(
        std::make_shared<SubscriptionListener>(manager, thread, nullptr, std::move(callback)));
    subscription.mListener->begin();
    manager.registerForEvent(subscription.mListener.get(), std::move(names));
    return subscription;
}

} // namespace status
