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

// Nothing may reach the feed any more when its members go: first the tap and the link, then the library, then
// what they have queued.
Feed::~Feed()
{
    mTap.reset();
    if (mLink)
        mLink->end(); // the feed's thread may be using it
    mDevice.unregister(this);
    mThread.stop();
}

void Feed::start()
{
    // First of all, so that no key can appear between a look at those that are there and the tap.
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
    mDevice.confirm(); // tells of a bad reply to what was queued
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

// Nothing is told before: until then, the process ends if the broker does.
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

// The first ones are the answer to start(): the values of the keys that were there.
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

// Both the library's and the tap's; one that comes early waits with those of the tap.
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
        return finish(std::make_exception_ptr(Failure(ExitCode::Failed, "cannot hear notifications")));
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

// Keys that have come since start() looked and before the tap was ready. Those that the tap has told of are
// left to it.
void Feed::lookForMissed()
{
    if (!mKeys.hasGlobs())
        return;
    try
    {
        const std::optional<StatusMap> values = mLink->values(mDevice.requestTimeout());
        if (!values)
            return; // lost: there will be another look
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

// Before the values of the beginning have come, there is nothing that could differ.
void Feed::takeLink(bool isUp)
{
    if (!mIsSynced || mIsEnough)
        return;
    if (isUp)
        return lookForDifferences();
    if (!std::exchange(mIsLost, true))
        tell(Change::Kind::Lost, {}, {});
}

// The library hears of values that differ, too, since a new broker tells everything to those that come back.
// It does not hear of keys that are no more. Whatever changes from now on waits in the queue of this thread.
void Feed::lookForDifferences()
{
    try
    {
        const std::optional<StatusMap> values = mLink->values();
        if (!values)
            return; // lost again
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
        return; // told again, as happens while clients start
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
