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

/// Tells what is there and what changes, in this order: the initial values, "synced", then each change as it
/// arrives. Names given exactly, and keys that are there, are subscribed to in the library. For globs all
/// notifications are heard as well (NotificationTap), which tells of the keys that appear later. Each key is
/// told of by one of the two alone, so that its values stay in their order. When the broker goes, "lost" is
/// told; when it is back, what differs, and "synced".
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

    /// Waits until the receiver has seen enough; false if the time, from the device's beginning, is over
    /// before.
    /// @throws what the receiver has thrown
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

    // The feed's thread, and start() before it has subscribed.
    std::set<std::string> mSubscribed;                 // the library tells of these
    std::map<std::string, std::string> mValues;        // as told
    std::vector<BrokerProtocol::Notification> mTapped; // until the initial values were told
    std::vector<StatusMap> mEarly;                     // until start() is done
    bool mHasStarted = false;
    bool mMustLook = false; // what the tap has missed before it was ready
    bool mIsSynced = false;
    bool mIsLost = false; // and that is told
    bool mIsEnough = false;

    std::mutex mMutex;
    std::condition_variable mFinished;
    bool mIsFinished = false;
    std::exception_ptr mFailure;

    Orvane::EventThread mThread{"statusctl feed", 0};
    std::optional<NotificationTap> mTap; // its thread sends to mThread
    std::optional<BrokerLink> mLink;     // and so does this one's
};

#endif
