#ifndef BRIDGE_VALUEBOOK_H
#define BRIDGE_VALUEBOOK_H

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "daemon/Clock.h"

/// The device's values, and which of them the server must get when. Only the latest value of a key waits,
/// however often it changes. The empty text is a reset value.
class ValueBook
{
public:
    using Values = std::map<std::string, std::string>;
    using IntervalOf = std::function<std::chrono::milliseconds(const std::string& key)>;

    /// @param intervalOf the least time between two values of a key
    explicit ValueBook(IntervalOf intervalOf) : mIntervalOf(std::move(intervalOf)) {}

    ValueBook(const ValueBook&) = delete;
    ValueBook& operator=(const ValueBook&) = delete;

    void change(const std::string& key, const std::string& value, TimePoint now);

    /// Takes the whole state. Keys that are missing in it count as reset.
    void replace(const Values& values, TimePoint now);

    /// When the next value is due; TimePoint::max(): none.
    TimePoint nextDue() const { return mQueue.empty() ? TimePoint::max() : mQueue.begin()->first; }

    /// A value to be sent now. The caller sends it.
    /// @returns nothing if none is due; the pointers are valid until the next call
    struct Due
    {
        const std::string* key = nullptr;
        const std::string* value = nullptr;
        explicit operator bool() const { return key != nullptr; }
    };
    Due takeDue(TimePoint now);

    /// The server gets all values anew: nothing else is due.
    void clearQueue();

    /// The first key behind this one with a value that is not reset; it counts as sent now. Call it until it
    /// returns nothing.
    /// @param isFirst begins with the first key of all
    Due takeBehind(const std::string& key, bool isFirst, TimePoint now);

    /// The values that are not reset.
    Values values() const;

    /// The value of a key; empty if it is reset or unknown.
    std::string valueOf(const std::string& key) const;

private:
    struct Entry
    {
        std::string value;
        TimePoint sent{}; // the last time
        TimePoint due = TimePoint::max();
        bool isGone = false; // the device does not have the key any more
    };
    using Entries = std::map<std::string, Entry>;
    using Waiting = std::pair<TimePoint, const std::string*>;

    struct Earlier // and then by the key
    {
        bool operator()(const Waiting& left, const Waiting& right) const
        {
            return left.first == right.first ? *left.second < *right.second : left.first < right.first;
        }
    };

    void enqueue(Entries::value_type& entry, TimePoint now);

    IntervalOf mIntervalOf;
    Entries mEntries;
    std::set<Waiting, Earlier> mQueue;
    Entry mTaken; // of a key that is gone
    std::string mTakenKey;
};

#endif
