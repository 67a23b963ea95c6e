#ifndef BROKER_STATE_DEVICESTATE_H
#define BROKER_STATE_DEVICESTATE_H

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "broker/base/Limits.h"
#include "broker/base/Refusals.h"
#include "broker/state/Posters.h"
#include "broker/state/SavedState.h"
#include "broker/state/Shares.h"
#include "protocol/BrokerDocuments.h"

/// The state of the device: status values, timers and counters. No sockets, one thread.
///
/// A name that exceeds a limit is refused, and the rest of the same post is applied. Existing values, timers
/// and counters can always be changed, within their size limits.
class DeviceState
{
public:
    using Members = std::vector<BrokerProtocol::Member>;

    /// Both arguments must outlive this object; limits may change.
    DeviceState(const Limits& limits, Refusals& refusals) : mLimits(limits), mRefusals(refusals) {}

    DeviceState(const DeviceState&) = delete;
    DeviceState& operator=(const DeviceState&) = delete;

    /// Starts with the kept state, within the limits. Changes are recorded from now on.
    void restore(const SavedState& state);

    /// The changes since the last call, if changes are recorded.
    SavedState takeChanges();

    /// The whole state.
    SavedState everything() const;

    // ---- Posts. The results refer to this object, until the next post.

    /// Returns the values that changed, sorted by key, without duplicates.
    /// @param values sorted by key, without duplicates
    /// @param by the client that posts them
    const Members& post(const Members& values, Posters::Id by = Posters::nobody);

    /// The same for keys whose text becomes empty.
    const Members& reset(const std::vector<std::string_view>& keys, Posters::Id by = Posters::nobody);

    /// The same for values that end with their owner. Their last poster stays, and they still count towards
    /// its share. The empty text resets.
    const Members& end(const Members& values, Posters::Id by);

    /// The events to publish. Events are not stored.
    const Members& events(const Members& events);

    void startTimer(std::string_view name);
    void stopTimer(std::string_view name);
    void resetTimer(std::string_view name);
    void restartTimer(std::string_view name);
    void setCounter(std::string_view name, uint32_t value);

    /// Sets a timer's readings. A running timer continues from there.
    /// @returns false if the name exceeds a limit
    bool setTimer(std::string_view name, const BrokerProtocol::TimerReading& reading);

    // ---- Posters.

    /// From now on, the judge limits how much of the state each user takes; without a judge, nothing is
    /// limited.
    void setShares(Shares::Judge judge);

    /// The posters. Each value holds its own.
    Posters& posters() { return mPosters; }

    /// More is known about these posters than when they posted. Their values' details are saved again.
    void notePosters(const std::set<Posters::Id>& posters);

    // ---- Requests.

    std::string_view valueOf(std::string_view key) const;

    /// A value and its key; null if there is none.
    struct Value;
    const Value* find(std::string_view key) const;

    /// The first value after this key, in the order of the keys; nothing: the first of all.
    const Value* behind(const std::optional<std::string>& key) const;

    /// Calls act(const Value&) for each value, in the order of the keys.
    template <class Act>
    void forEachValue(Act&& act) const
    {
        for (const auto& [key, value] : mValues)
        {
            if (!value.isForgotten)
                act(value);
        }
    }

    /// The value with its history. The text refers to this object.
    BrokerProtocol::ValueDetails details(const Value& value) const;

    /// The details of all values posted since restore(). A post that changes nothing, and comes from the same
    /// service, does not count as a change.
    SavedState laterDetails() const;

    /// In microseconds; 0 for a timer that does not exist.
    uint64_t elapsed(std::string_view timer) const;
    uint64_t lastStarted(std::string_view timer) const;
    BrokerProtocol::TimerReading timer(std::string_view name) const;

    uint32_t counter(std::string_view name) const;

    /// The first name after this one, in the order of the names; nothing: the first of all. Null if there is
    /// none.
    const std::string* timerBehind(const std::optional<std::string>& name) const;
    const std::string* counterBehind(const std::optional<std::string>& name) const;

    /// Returns the new value; nothing if it exceeds a limit.
    std::optional<uint32_t> incrementCounter(std::string_view name);

    // ---- Forgetting: as if the names had never existed. The results refer to the given names.

    struct Forgotten
    {
        std::vector<std::string_view> names; ///< those that existed, in the given order, without duplicates
        Members resets;                      ///< for those that had a text, sorted by key
    };

    Forgotten forgetValues(const std::vector<std::string_view>& keys);

    /// Forgets running timers, too.
    std::vector<std::string_view> forgetTimers(const std::vector<std::string_view>& names);
    std::vector<std::string_view> forgetCounters(const std::vector<std::string_view>& names);

    // ---- Changes since a revision. A forgotten value stays among them with an empty text, and counts
    // towards the limit of keys, until dropForgotten(): subscribers that have not read its reset get it from
    // here.

    /// How many forgotten values there are.
    std::size_t forgotten() const { return mForgotten; }

    /// Drops forgotten values whose last change is at or before this revision. Pointers to them become
    /// invalid.
    /// @returns how many
    std::size_t dropForgotten(uint64_t revision);

    /// Counts the changes of status values so far.
    uint64_t revision() const { return mRevision; }

    /// Microseconds since the device was started; negative for a kept time before that.
    using BootTime = int64_t;
    static constexpr BootTime unknownTime = std::numeric_limits<BootTime>::min();

    struct History
    {
        BootTime posted = 0;
        BootTime changed = 0;
        uint32_t posts = 0;
        uint32_t changes = 0;
        Posters::Id poster = Posters::nobody;
        Posters::Id changer = Posters::nobody;
    };

    struct Value
    {
        std::string_view key; ///< refers to the map's key
        std::string text;
        uint64_t revision = 0; ///< of its last change
        History history;
        bool isForgotten = false;

        // Links in the order of the last changes.
        Value* older = nullptr;
        Value* newer = nullptr;
    };

    /// The value that changed first after this revision; null if there is none. Follow `newer` for the next.
    const Value* changedSince(uint64_t revision) const;

    /// Whether there is one. Takes no search.
    bool hasChangedSince(uint64_t revision) const
    {
        return mNewest != nullptr && mNewest->revision > revision;
    }

    std::size_t keys() const { return mValues.size() - mForgotten; }
    std::size_t storedBytes() const { return mStoredBytes; }
    std::size_t timers() const { return mTimers.size(); }
    std::size_t counters() const { return mCounters.size(); }
    bool hasRunningTimers() const;

private:
    using Values = std::map<std::string, Value, std::less<>>;
    using Timer = SavedState::Timer;

    /// The client and the time of a post.
    struct Post
    {
        Posters::Id by;
        BootTime at;
        bool isEnd = false; ///< the value ends with its owner
    };

    bool store(std::string_view key, std::string_view text, const Post& post);
    void note(Value& value, const Post& post, bool isChange);
    SavedState::Detail savedDetail(const Value& value) const;
    void restoreHistories(const SavedState& state);
    Shares::User userOf(const Value* value) const;
    static Shares::Share shareOf(const Value* value);
    void addShare(const Value& value);
    void removeShare(const Value& value);
    bool mayTakeShare(const Value* former, std::string_view key, std::string_view text,
                      const Post& post) const;
    const Members& store(const Members& values, const Post& post);
    bool mayAddKey(std::string_view key);
    bool mayStore(Values::const_iterator stored, std::string_view key, std::string_view text);
    void moveToNewest(Value& value);
    void takeOut(Value& value);
    void forget(Value& value);
    static BootTime bootTime();
    template <typename Operate>
    bool applyToTimer(std::string_view name, Operate operate);
    bool hasGoodSize(std::string_view name);
    bool hasGoodSize(std::string_view name, std::string_view value);
    bool mayAddName(std::string_view name, std::size_t others, std::size_t most, Refusal kind);

    // Whether the map has the name, or room for it.
    template <typename Map>
    bool mayName(const Map& map, std::string_view name, std::size_t most, Refusal kind)
    {
        return map.find(name) != map.end() || mayAddName(name, map.size(), most, kind);
    }

    const Limits& mLimits;
    Refusals& mRefusals;
    uint64_t mRevision = 0;
    std::size_t mStoredBytes = 0;
    Posters mPosters;
    Shares mShares;
    BootTime mRestored = 0;
    Values mValues;
    std::size_t mForgotten = 0; // of mValues
    Value* mOldest = nullptr;
    Value* mNewest = nullptr;
    std::map<std::string, Timer, std::less<>> mTimers;
    std::map<std::string, uint32_t, std::less<>> mCounters;
    Members mChanged; // by the last post
    bool mNotesChanges = false;
    SavedState mNoted;
};

#endif
