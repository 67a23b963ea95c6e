#include "statusctl/Feed.h"

#include <utility>

#include "common/EventAgent.h"
#include "common/TrackedNew.h"

using BrokerProtocol::Notification;
using Orvane::AsyncEventAgent1;
using Orvane::AsyncEventAgent2;

Feed::Feed(Device& device, Pattern keys, Pattern events, Receiver receiver)
    : mDevice(device), mKeys(std::move(keys)), mEvents(std::move(events)), mReceiver(std::move(receiver))
{
}

// Nothing may reach the feed any more when its members go: first the tap, then the library, then what they
// have queued.
Feed::~Feed()
{
    mTap.reset();
    mDevice.unregister(this);
    mThread.stop();
}

void Feed::start()
{
    // First of all, so that no key can appear between a look at those that are there and the tap.
    if (mKeys.hasGlobs() || mEvents.hasGlobs())
        mTap.emplace([this](Notification notification) { onTapped(std::move(notification)); });

    StatusKeys keys = keysThatMatch();
    keys.insert(keys.end(), mKeys.exact().begin(), mKeys.exact().end());
    const EventKeys events(mEvents.exact().begin(), mEvents.exact().end());
    mDevice.manager().registerListener(this, &mThread);
    mDevice.manager().registerForEvent(this, events);
    subscribe(keys);
    mDevice.confirm(); // tells of a bad reply to what was queued
}

bool Feed::wait(std::optional<std::chrono::milliseconds> timeout)
{
    std::unique_lock<std::mutex> lock(mMutex);
    const auto isFinished = [this] { return mIsFinished; };
    if (!timeout)
        mFinished.wait(lock, isFinished);
    else if (!mFinished.wait_for(lock, *timeout, isFinished))
        return false;
    if (mFailure)
        std::rethrow_exception(mFailure);
    return true;
}

// ----------------------------------------------------------------------------------------- the feed's thread

// The first one is the answer to start(): the values of the keys that were there.
void Feed::onStatusUpdate(StatusMap updates)
{
    const bool isFirst = !mIsSynced;
    for (const auto& [key, value] : updates)
    {
        const auto [known, isNew] = mValues.emplace(key, value);
        if (!isNew && known->second == value)
            continue; // told again, as happens while clients start
        known->second = value;
        tell(isFirst         ? Change::Kind::Initial
             : value.empty() ? Change::Kind::Reset
                             : Change::Kind::Changed,
             key, value);
    }
    if (!isFirst)
        return;
    tell(Change::Kind::Synced, {}, {});
    mIsSynced = true;
    onAppeared(std::exchange(mLater, {}));
    if (mLookLater)
        onAppeared(std::nullopt);
}

void Feed::onEventUpdate(std::string name, std::string value)
{
    tell(Change::Kind::Event, name, value);
}

void Feed::onAppeared(std::optional<StatusKeys> keys)
{
    if (!mIsSynced)
    {
        mLookLater = mLookLater || !keys;
        if (keys)
            mLater.insert(mLater.end(), keys->begin(), keys->end());
        return;
    }
    try
    {
        subscribe(keys ? *keys : keysThatMatch());
    }
    catch (const Failure&)
    {
        finish(std::current_exception());
    }
}

void Feed::subscribe(const StatusKeys& keys)
{
    StatusKeys added;
    for (const std::string& key : keys)
    {
        if (mSubscribed.insert(key).second)
            added.push_back(key);
    }
    if (!added.empty() || !mIsSynced) // the first one is answered even when it asks for nothing
        mDevice.manager().registerForStatus(this, added);
}

StatusKeys Feed::keysThatMatch()
{
    StatusKeys keys;
    if (!mKeys.hasGlobs())
        return keys;
    for (const auto& [key, value] :
         mDevice.ask([](StatusManager& manager) { return manager.getClientInfo(); }))
    {
        if (mKeys.matchesGlob(key))
            keys.push_back(key);
    }
    return keys;
}

void Feed::tell(Change::Kind kind, const std::string& name, const std::string& value)
{
    if (mIsEnough)
        return;
    try
    {
        if (!mReceiver({Timestamp::now(), kind, name, value}))
            finish(nullptr);
    }
    catch (const Failure&)
    {
        finish(std::current_exception());
    }
}

void Feed::finish(std::exception_ptr failure)
{
    mIsEnough = true;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsFinished = true;
        mFailure = std::move(failure);
    }
    mFinished.notify_all();
}

// ------------------------------------------------------------------------------------------ the tap's thread

void Feed::onTapped(Notification notification)
{
    if (notification.kind == Notification::Kind::Unhandled)
        return sendAppeared(std::nullopt); // what has appeared while nobody was listening yet
    if (notification.kind == Notification::Kind::EventUpdate)
        return onTappedEvents(notification.members);
    StatusKeys keys;
    for (const auto& [key, value] : notification.members)
    {
        if (mKeys.matchesGlob(key) && mTapped.insert(key).second)
            keys.push_back(key);
    }
    if (!keys.empty())
        sendAppeared(std::move(keys));
}

void Feed::sendAppeared(std::optional<StatusKeys> keys)
{
    auto* agent =
        OV_NEW AsyncEventAgent1<Feed, std::optional<StatusKeys>>(this, &Feed::onAppeared, std::move(keys));
    agent->send(&mThread);
}

void Feed::onTappedEvents(const StatusMap& events)
{
    for (const auto& [name, value] : events)
    {
        if (!mEvents.matchesGlob(name) || mEvents.isExact(name))
            continue;
        auto* agent = OV_NEW AsyncEventAgent2<IStatusUpdateListener, std::string, std::string>(
            this, &IStatusUpdateListener::onEventUpdate, name, value);
        agent->send(&mThread);
    }
}
