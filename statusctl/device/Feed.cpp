#include "statusctl/device/Feed.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "common/EventAgent.h"
#include "common/TrackedNew.h"

using BrokerProtocol::Notification;
using Orvane::AsyncEventAgent1;
using AsyncEventAgent0 = Orvane::MemberCall<Orvane::AsyncEventAgent, Feed, void>;

Feed::Feed(Device& device, Pattern keys, Pattern events, Receiver receiver)
    : mDevice(device), mKeys(std::move(keys)), mEvents(std::move(events)), mReceiver(std::move(receiver))
{
}

// Nothing may reach the feed while its members are destroyed. So the tap and the link end first, then the
// library's subscription, then the calls that these have queued.
Feed::~Feed()
{
    mTap.reset();
    if (mLink)
        mLink->end(); // takes it off the feed's thread, which may be waiting for values
    mDevice.unregister(this);
    mThread.stop();
}

void Feed::start()
{
    // First, so that no key can appear between keysThatMatch() and the tap.
    if (mKeys.hasGlobs() || mEvents.hasGlobs())
        mTap.emplace([this](Notification notification) { onTapped(std::move(notification)); });

    mLink.emplace([this](bool isUp) { onLink(isUp); });
    StatusKeys keys = keysThatMatch();
    keys.insert(keys.end(), mKeys.exact().begin(), mKeys.exact().end());
    const EventKeys events(mEvents.exact().begin(), mEvents.exact().end());
    mDevice.manager().registerListener(this, &mThread);
    mDevice.manager().registerForEvent(this, events);
    subscribe(keys);
    mLink->waitUntilUp();
    mDevice.confirm(); // throws if the broker refused one of the queued requests
    auto* agent = OV_NEW AsyncEventAgent0(this, &Feed::takeStart);
    agent->send(&mThread);
}

bool Feed::wait(std::optional<std::chrono::milliseconds> timeout)
{
    std::unique_lock<std::mutex> lock(mMutex);
    const auto isFinished = [this] { return mIsFinished; };
    if (!timeout)
        mFinished.wait(lock, isFinished);
    else if (!mFinished.wait_until(lock, mDevice.begin() + *timeout, isFinished))
        return false;
    if (mFailure)
        std::rethrow_exception(mFailure);
    return true;
}

// ----------------------------------------------------------------------------------------- the feed's thread

// Reporting begins here, not earlier: start() ends the process if the broker goes meanwhile.
void Feed::takeStart()
{
    mHasStarted = true;
    for (const StatusMap& updates : std::exchange(mEarly, {}))
        takeUpdates(updates);
}

void Feed::onStatusUpdate(StatusMap updates)
{
    if (mHasStarted)
        takeUpdates(updates);
    else
        mEarly.push_back(std::move(updates));
}

// The first updates answer start(): they are the values that existed.
void Feed::takeUpdates(const StatusMap& updates)
{
    if (mIsSynced)
    {
        for (const auto& [key, value] : updates)
            tellValue(key, value);
        return;
    }
    for (const auto& [key, value] : updates)
    {
        mValues[key] = value;
        tell(Change::Kind::Initial, key, value);
    }
    tell(Change::Kind::Synced, {}, {});
    mIsSynced = true;
    tellTapped();
}

// Called for both the library and the tap. An event before Synced waits with the tap's notifications.
void Feed::onEventUpdate(std::string name, std::string value)
{
    if (mIsSynced)
        tell(Change::Kind::Event, name, value);
    else
        mTapped.push_back({Notification::Kind::EventUpdate, {{name, value}}});
}

void Feed::take(Notification notification)
{
    if (notification.kind == Notification::Kind::Unparsable)
        return finish(std::make_exception_ptr(Failure(ExitCode::Failed, "cannot receive notifications")));
    mMustLook = mMustLook || notification.kind == Notification::Kind::Unhandled;
    mTapped.push_back(std::move(notification));
    if (mIsSynced)
        tellTapped();
}

void Feed::tellTapped()
{
    for (const Notification& notification : std::exchange(mTapped, {}))
    {
        for (const auto& [name, value] : notification.members)
        {
            if (notification.kind == Notification::Kind::EventUpdate)
                tell(Change::Kind::Event, name, value);
            else if (mSubscribed.count(name) == 0)
                tellValue(name, value);
        }
    }
    if (std::exchange(mMustLook, false))
        lookForMissed();
}

// Finds keys that appeared after start() had listed them and before the tap was ready. Keys that the tap has
// already reported stay with the tap.
void Feed::lookForMissed()
{
    if (!mKeys.hasGlobs())
        return;
    try
    {
        const std::optional<StatusMap> values = mLink->values(mDevice.requestTimeout());
        if (!values)
            return; // the broker has gone: lookForDifferences() follows when it is back
        StatusKeys missed;
        for (const auto& [key, value] : *values)
        {
            if (mKeys.matchesGlob(key) && mValues.count(key) == 0)
                missed.push_back(key);
        }
        subscribe(missed);
    }
    catch (...)
    {
        finish(std::current_exception());
    }
}

// Before the initial values have arrived, nothing can differ.
void Feed::takeLink(bool isUp)
{
    if (!mIsSynced || mIsEnough)
        return;
    if (isUp)
        return lookForDifferences();
    if (!std::exchange(mIsLost, true))
        tell(Change::Kind::Lost, {}, {});
}

// The library also reports the differing values, because a new broker sends all values to clients that
// reconnect. It does not report keys that are gone. Later changes wait in this thread's queue.
void Feed::lookForDifferences()
{
    try
    {
        const std::optional<StatusMap> values = mLink->values();
        if (!values)
            return; // the broker has gone again
        for (const auto& [key, value] : *values)
        {
            if (mKeys.matches(key))
                tellValue(key, value);
        }
        tellGone(*values);
        if (std::exchange(mIsLost, false))
            tell(Change::Kind::Synced, {}, {});
    }
    catch (...)
    {
        finish(std::current_exception());
    }
}

void Feed::tellGone(const StatusMap& values)
{
    for (auto known = mValues.begin(); known != mValues.end();)
    {
        if (values.count(known->first) != 0)
        {
            ++known;
            continue;
        }
        tell(Change::Kind::Gone, known->first, {});
        known = mValues.erase(known);
    }
}

void Feed::tellValue(const std::string& key, const std::string& value)
{
    const auto [known, isNew] = mValues.emplace(key, value);
    if (!isNew && known->second == value)
        return; // a repeated value, which the broker sends while clients start
    known->second = value;
    tell(value.empty() ? Change::Kind::Reset : Change::Kind::Changed, key, value);
}

void Feed::subscribe(const StatusKeys& keys)
{
    StatusKeys added;
    for (const std::string& key : keys)
    {
        if (mSubscribed.insert(key).second)
            added.push_back(key);
    }
    if (!added.empty() || !mIsSynced) // the first request is answered even if it names no key
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
    catch (...)
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
    const bool isEvent = notification.kind == Notification::Kind::EventUpdate;
    StatusMap& members = notification.members;
    for (auto member = members.begin(); member != members.end();)
    {
        const bool isWanted = isEvent ? mEvents.matchesGlob(member->first) && !mEvents.isExact(member->first)
                                      : mKeys.matchesGlob(member->first);
        member = isWanted ? std::next(member) : members.erase(member);
    }
    if (members.empty() && (isEvent || notification.kind == Notification::Kind::StatusUpdate))
        return;
    auto* agent = OV_NEW AsyncEventAgent1<Feed, Notification>(this, &Feed::take, std::move(notification));
    agent->send(&mThread);
}

// ----------------------------------------------------------------------------------------- the link's thread

void Feed::onLink(bool isUp)
{
    auto* agent = OV_NEW AsyncEventAgent1<Feed, bool>(this, &Feed::takeLink, isUp);
    agent->send(&mThread);
}
