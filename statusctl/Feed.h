#ifndef STATUSCTL_FEED_H
#define STATUSCTL_FEED_H

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "common/EventThread.h"
#include "statusctl/Change.h"
#include "statusctl/Device.h"
#include "statusctl/NotificationTap.h"
#include "statusctl/Pattern.h"

/// Tells what is there and what changes, in this order: the initial values, "synced", then each change as it
/// arrives. Names given exactly are subscribed to in the library. For globs all notifications are heard as
/// well (NotificationTap): a key that appears later is subscribed to when its first notification comes.
class Feed : private IStatusUpdateListener
{
public:
    /// Called on the feed's thread, one call at a time.
    /// @returns false when it has seen enough
    using Receiver = std::function<bool(const Change&)>;

    Feed(Device& device, Pattern keys, Pattern events, Receiver receiver);
    ~Feed() override;

    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    /// Subscribes. The receiver is called from now on.
    void start();

    /// Waits until the receiver has seen enough; false if the time runs out before.
    /// @throws what the receiver has thrown
    bool wait(std::optional<std::chrono::milliseconds> timeout);

private:
    void onStatusUpdate(StatusMap updates) override;
    void onEventUpdate(std::string name, std::string value) override;
    void onTapped(BrokerProtocol::Notification notification); // these three: the tap's thread
    void onTappedEvents(const StatusMap& events);
    void sendAppeared(std::optional<StatusKeys> keys);
    void onAppeared(std::optional<StatusKeys> keys); // nothing: look for them

    StatusKeys keysThatMatch();
    void subscribe(const StatusKeys& keys);
    void tell(Change::Kind kind, const std::string& name, const std::string& value);
    void finish(std::exception_ptr failure);

    Device& mDevice;
    const Pattern mKeys;
    const Pattern mEvents;
    const Receiver mReceiver;

    std::set<std::string> mTapped; // keys that the feed has been told of; the tap's thread

    // The feed's thread, and start() before it has subscribed.
    std::set<std::string> mSubscribed;
    std::map<std::string, std::string> mValues; // as told
    StatusKeys mLater;                          // keys that have appeared before all initial values were told
    bool mLookLater = false;                    // the tap was ready before that
    bool mIsSynced = false;
    bool mIsEnough = false;

    std::mutex mMutex;
    std::condition_variable mFinished;
    bool mIsFinished = false;
    std::exception_ptr mFailure;

    Orvane::EventThread mThread{"statusctl feed", 0};
    std::optional<NotificationTap> mTap; // its thread sends to mThread
};

#endif
