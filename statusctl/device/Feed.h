#ifndef STATUSCTL_DEVICE_FEED_H
#define STATUSCTL_DEVICE_FEED_H

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/EventThread.h"
#include "statusctl/device/BrokerLink.h"
#include "statusctl/device/Change.h"
#include "statusctl/device/Device.h"
#include "statusctl/device/NotificationTap.h"
#include "statusctl/text/Pattern.h"

/// Reports values and their changes in this order: the initial values, Synced, then each change as it
/// arrives. Exact names and existing keys are subscribed to in the library. For globs, a NotificationTap also
/// receives all notifications, which reveals keys that appear later. Each key is reported by only one of the
/// two, so its values keep their order. When the broker goes, the feed reports Lost; when it is back, the
/// differences and Synced.
class Feed : private IStatusUpdateListener
{
public:
    /// Called on the feed's thread, one call at a time.
    /// @returns false when it wants no more
    using Receiver = std::function<bool(const Change&)>;

    Feed(Device& device, Pattern keys, Pattern events, Receiver receiver);
    ~Feed() override;

    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    /// Subscribes. The receiver is called from now on.
    void start();

    /// Waits until the receiver wants no more. Returns false if the time, counted from the device's
    /// beginning, is over first.
    /// @throws whatever the receiver has thrown
    bool wait(std::optional<std::chrono::milliseconds> timeout);

private:
    void onStatusUpdate(StatusMap updates) override;
    void onEventUpdate(std::string name, std::string value) override;
    void onTapped(BrokerProtocol::Notification notification); // on the tap's thread
    void takeStart();
    void takeUpdates(const StatusMap& updates);
    void take(BrokerProtocol::Notification notification);
    void onLink(bool isUp); // on the link's thread
    void takeLink(bool isUp);

    StatusKeys keysThatMatch();
    void subscribe(const StatusKeys& keys);
    void lookForMissed();
    void lookForDifferences();
    void tellGone(const StatusMap& values);
    void tellTapped();
    void tellValue(const std::string& key, const std::string& value);
    void tell(Change::Kind kind, const std::string& name, const std::string& value);
    void finish(std::exception_ptr failure);

    Device& mDevice;
    const Pattern mKeys;
    const Pattern mEvents;
    const Receiver mReceiver;

    // Used by the feed's thread, and by start() before it has subscribed.
    std::set<std::string> mSubscribed;                 // the library reports these keys
    std::map<std::string, std::string> mValues;        // as last reported
    std::vector<BrokerProtocol::Notification> mTapped; // until the initial values are reported
    std::vector<StatusMap> mEarly;                     // until start() has finished
    bool mHasStarted = false;
    bool mMustLook = false; // keys may have appeared before the tap was ready
    bool mIsSynced = false;
    bool mIsLost = false; // and Lost has been reported
    bool mIsEnough = false;

    std::mutex mMutex;
    std::condition_variable mFinished;
    bool mIsFinished = false;
    std::exception_ptr mFailure;

    Orvane::EventThread mThread{"statusctl feed", 0};
    std::optional<NotificationTap> mTap; // its thread sends to mThread
    std::optional<BrokerLink> mLink;     // its thread sends to mThread, too
};

#endif
