#include "c/Inbox.h"

#include <iterator>
#include <new>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

#include "c/Failure.h"

namespace StatusC
{

namespace
{

using Lock = std::lock_guard<std::mutex>;

bool isUpdate(const Item& item)
{
    return item.kind == STATUS_CHANGE || item.kind == STATUS_EVENT;
}

} // namespace

Inbox::Inbox() : mDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (mDescriptor < 0)
        throw Failure{STATUS_ESYSTEM};
}

Inbox::~Inbox()
{
    close();
}

void Inbox::close() noexcept
{
    Items queue; // these three are freed without the lock
    Keys keys;
    std::set<std::string> events;
    const Lock lock(mMutex);
    if (std::exchange(mClosed, true))
        return;
    ::close(std::exchange(mDescriptor, -1));
    queue.swap(mQueue);
    keys.swap(mKeys);
    events.swap(mEvents);
}

bool Inbox::isClosed() noexcept
{
    const Lock lock(mMutex);
    return mClosed;
}

int Inbox::descriptor()
{
    const Lock lock(mMutex);
    requireOpen();
    return mDescriptor;
}

bool Inbox::take(Items& taken)
{
    const Lock lock(mMutex);
    requireOpen();
    if (std::exchange(mHasMissed, false))
    {
        adjustDescriptor();
        throw std::bad_alloc();
    }
    if (mQueue.empty())
        return false;
    const auto first = mQueue.begin();
    count(*first, -1);
    if (first->kind == STATUS_CHANGE)
    {
        const auto key = mKeys.find(first->key);
        if (key != mKeys.end() && key->second.isWaiting && key->second.latest == first)
            key->second.isWaiting = false;
    }
    taken.splice(taken.end(), mQueue, first);
    adjustDescriptor();
    return true;
}

void Inbox::putBack(Items& taken) noexcept
{
    const Lock lock(mMutex);
    const Item& item = taken.back();
    const bool isEnded = (item.kind == STATUS_CHANGE && mKeys.count(item.key) == 0) ||
                         (item.kind == STATUS_EVENT && mEvents.count(item.key) == 0);
    if (mClosed || isEnded)
        return;
    count(item, 1);
    mQueue.splice(mQueue.begin(), taken, std::prev(taken.end()));
    adjustDescriptor();
}

uint64_t Inbox::dropped() noexcept
{
    const Lock lock(mMutex);
    return mDropped;
}

// --------------------------------------------------------------------------------------------------- answers

void Inbox::expectAnswer()
{
    const Lock lock(mMutex);
    requireOpen();
    if (mExpected >= STATUS_ASKED_MOST)
        throw Failure{STATUS_EFULL};
    ++mExpected;
}

void Inbox::expectNoAnswer() noexcept
{
    const Lock lock(mMutex);
    --mExpected;
}

void Inbox::pushAnswer(Items& answer) noexcept
{
    StatusMap dropped; // freed without the lock
    const Lock lock(mMutex);
    if (mClosed)
        return;
    Item& item = answer.back();
    if (mAnswerBytes != 0 && mAnswerBytes + bytesOf(item) > STATUS_ANSWERS_BYTES)
    {
        dropped.swap(item.values);
        item.value.clear();
        item.result = STATUS_EFULL;
    }
    mAnswerBytes += bytesOf(item);
    if (item.kind == STATUS_SYNCED)
        ++mSynced;
    mQueue.splice(mQueue.end(), answer, std::prev(answer.end()));
    adjustDescriptor();
}

// --------------------------------------------------------------------------------------------- subscriptions

Inbox::Ticket Inbox::subscribe(const StatusKeys& keys)
{
    Keys fresh;
    const Lock lock(mMutex);
    requireOpen();
    const Ticket ticket = ++mLastTicket;
    for (const std::string& key : keys)
    {
        if (mKeys.count(key) == 0)
            fresh.emplace(key, Subscribed{ticket});
    }
    if (mKeys.size() + fresh.size() > STATUS_SUBSCRIBED_MOST)
        throw Failure{STATUS_EFULL};
    mKeys.merge(fresh);
    return ticket;
}

void Inbox::cancel(Ticket ticket, const StatusKeys& keys) noexcept
{
    const Lock lock(mMutex);
    for (const std::string& key : keys)
    {
        const auto known = mKeys.find(key);
        if (known != mKeys.end() && known->second.since == ticket)
            mKeys.erase(known);
    }
}

StatusKeys Inbox::open(Ticket ticket, const StatusKeys& keys)
{
    StatusKeys opened;
    const Lock lock(mMutex);
    for (const std::string& key : keys)
    {
        const auto known = mKeys.find(key);
        if (known == mKeys.end() || known->second.since > ticket)
            continue;
        opened.push_back(key);
        known->second.isOpen = true;
    }
    return opened;
}

void Inbox::unsubscribe(const StatusKeys& keys) noexcept
{
    Items removed; // freed without the lock
    const Lock lock(mMutex);
    for (const std::string& key : keys)
        mKeys.erase(key);
    removed = removeUpdates([this](const Item& item)
                            { return item.kind == STATUS_CHANGE && mKeys.count(item.key) == 0; });
}

EventKeys Inbox::subscribeEvents(const EventKeys& names)
{
    std::set<std::string> fresh;
    const Lock lock(mMutex);
    requireOpen();
    for (const std::string& name : names)
    {
        if (mEvents.count(name) == 0)
            fresh.insert(name);
    }
    if (mEvents.size() + fresh.size() > STATUS_SUBSCRIBED_MOST)
        throw Failure{STATUS_EFULL};
    EventKeys added(fresh.begin(), fresh.end());
    mEvents.merge(fresh);
    return added;
}

void Inbox::unsubscribeEvents(const EventKeys& names) noexcept
{
    Items removed; // freed without the lock
    const Lock lock(mMutex);
    for (const std::string& name : names)
        mEvents.erase(name);
    removed = removeUpdates([this](const Item& item)
                            { return item.kind == STATUS_EVENT && mEvents.count(item.key) == 0; });
}

// --------------------------------------------------------------------------------------------------- updates

void Inbox::pushChange(const std::string& key, std::string value) noexcept
{
    Items update;
    const Lock lock(mMutex);
    const auto known = mKeys.find(key);
    if (known == mKeys.end() || !known->second.isOpen)
        return;
    Subscribed& subscribed = known->second;
    if (isFull() && subscribed.isWaiting)
    {
        replaceLatest(subscribed, value);
        return;
    }
    try
    {
        update.push_back(Item{STATUS_CHANGE});
        update.back().key = key;
    }
    catch (const std::bad_alloc&)
    {
        return missNow();
    }
    update.back().value = std::move(value);
    pushUpdate(update);
    subscribed.latest = std::prev(mQueue.end());
    subscribed.syncedBefore = mSynced;
    subscribed.isWaiting = true;
}

// The newer value comes last, like every change. But it stays before the end of first values, which without
// it would not be all that there are.
void Inbox::replaceLatest(Subscribed& subscribed, std::string& value) noexcept
{
    Item& latest = *subscribed.latest;
    count(latest, -1);
    latest.value.swap(value);
    count(latest, 1);
    if (subscribed.syncedBefore == mSynced)
        mQueue.splice(mQueue.end(), mQueue, subscribed.latest);
}

void Inbox::pushEvent(std::string name, std::string value) noexcept
{
    Items update;
    const Lock lock(mMutex);
    if (mEvents.count(name) == 0)
        return;
    if (isFull())
    {
        ++mDropped;
        return;
    }
    try
    {
        update.push_back(Item{STATUS_EVENT});
    }
    catch (const std::bad_alloc&)
    {
        return missNow();
    }
    update.back().key = std::move(name);
    update.back().value = std::move(value);
    pushUpdate(update);
}

void Inbox::miss() noexcept
{
    const Lock lock(mMutex);
    missNow();
}

void Inbox::missNow() noexcept
{
    mHasMissed = true;
    adjustDescriptor();
}

void Inbox::requireOpen() const
{
    if (mClosed)
        throw Failure{STATUS_ECLOSED};
}

bool Inbox::isFull() const
{
    return mUpdates >= STATUS_QUEUED_MOST || mUpdateBytes >= STATUS_QUEUED_BYTES;
}

void Inbox::pushUpdate(Items& update)
{
    count(update.back(), 1);
    mQueue.splice(mQueue.end(), update, std::prev(update.end()));
    adjustDescriptor();
}

// Adds the item to the counts, or subtracts it. An answer that is taken is no longer expected.
void Inbox::count(const Item& item, int sign) noexcept
{
    const std::size_t bytes = bytesOf(item);
    const std::size_t one = 1;
    const auto add = [sign](std::size_t& total, std::size_t amount)
    { total = sign > 0 ? total + amount : total - amount; };
    if (isUpdate(item))
    {
        add(mUpdates, one);
        add(mUpdateBytes, bytes);
        return;
    }
    add(mExpected, one);
    add(mAnswerBytes, bytes);
}

template <class Matches>
Items Inbox::removeUpdates(Matches matches) noexcept
{
    Items removed;
    for (auto item = mQueue.begin(); item != mQueue.end();)
    {
        const auto next = std::next(item);
        if (matches(*item))
        {
            count(*item, -1);
            removed.splice(removed.end(), mQueue, item);
        }
        item = next;
    }
    adjustDescriptor();
    return removed;
}

// The descriptor is written and read only when the queue becomes filled or empty.
void Inbox::adjustDescriptor() noexcept
{
    const bool hasSomething = !mQueue.empty() || mHasMissed;
    if (mClosed || hasSomething == mIsReadable)
        return;
    eventfd_t counter = 0;
    if (hasSomething)
        static_cast<void>(eventfd_write(mDescriptor, 1)); // fails only for a full counter
    else
        static_cast<void>(eventfd_read(mDescriptor, &counter)); // fails only for an empty counter
    mIsReadable = hasSomething;
}

} // namespace StatusC
