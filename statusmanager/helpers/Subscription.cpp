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

/// The listener of a subscription. The manager's registry and queued agents have plain pointers to it, so it
/// must outlive them. An EndNotice on each of the two threads, the manager's and the callback's, holds it.
/// The EndNotice ends when leaveManager() or leaveThread() has run there, or the thread has ended.
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
            // The listener stays registered, but silent, until both threads have ended.
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
    // Ends a call, also when an exception leaves it.
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
            dropCallbacks(); // first: end() waits for the call and expects the callbacks to be gone
        const std::lock_guard<std::mutex> lock(mMutex);
        mCaller = std::thread::id();
        mCallFinished.notify_all();
    }

    // Returns true inside the callback, which cannot wait for its own end.
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

    // Needs no lock: the thread that makes a call does it, or, if there is no call, the thread that ended the
    // subscription.
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

    // Runs on the callback's thread, after all calls sent there. May destroy the listener.
    void leaveThread() { mDispatcher.removeAgentsByReceiver(&mToThread); }

    // Runs on the manager's thread, after the registration. Unregisters asynchronously: the thread that ends
    // a subscription must not wait for a manager that waits for a silent broker. May destroy the listener.
    void leaveManager()
    {
        ManagerAccess::removeListener(mManager, this);
        ManagerAccess::threadOf(mManager).removeAgentsByReceiver(&mToManager);
    }

    StatusManager& mManager;          // valid until mToManager is cut; on the manager's thread, or by on()
    Orvane::EventThread& mDispatcher; // valid until mToThread is cut; on that thread, or by on()
    DispatcherLink mToManager;
    DispatcherLink mToThread;

    std::mutex mMutex; // guards the three below
    std::condition_variable mCallFinished;
    std::thread::id mCaller; // the thread that runs the callback
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
