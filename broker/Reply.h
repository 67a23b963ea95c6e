#ifndef BROKER_REPLY_H
#define BROKER_REPLY_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "broker/state/DeviceState.h"

/// The text of an answer, produced as its reader takes it: the whole state of a device may be many times
/// larger than what a connection should hold.
///
/// Values are as they are when their turn comes, so none is older than the request.
class Reply
{
public:
    /// A short text.
    explicit Reply(std::string text) : mText(std::move(text)), mIsComplete(true) {}

    /// All values of the device.
    static Reply ofAll() { return Reply(Values::All); }

    /// Those of the keys that are known.
    static Reply of(std::vector<std::string_view> keys);

    /// The details of those of the keys that are known.
    static Reply detailsOf(std::vector<std::string_view> keys);

    /// All timers, or counters, of the device.
    static Reply ofTimers() { return Reply(Values::Timers); }
    static Reply ofCounters() { return Reply(Values::Counters); }

    enum class Kind
    {
        Value,
        Measure, ///< a timer or a counter
    };

    /// Appends the frames of a message, as much as makes about so many bytes. True when they are all there.
    /// @param shows which names to tell; empty for all
    using Shows = std::function<bool(Kind, std::string_view)>;
    bool produce(const DeviceState& state, const Shows& shows, std::size_t bytes, std::string& to);

    /// Memory that it holds.
    std::size_t heldBytes() const;

private:
    enum class Values
    {
        None,
        All,
        Listed,
        Detailed, ///< listed, with their details
        Timers,
        Counters,
    };

    explicit Reply(Values values) : mValues(values) {}
    Reply(Values values, std::vector<std::string_view> keys);

    void extend(const DeviceState& state, const Shows& shows, std::size_t bytes);
    const char* key() const;
    void begin();
    bool appendNext(const DeviceState& state, const Shows& shows);
    bool appendNextMeasure(const DeviceState& state, const Shows& shows);
    void appendName(std::string_view name);
    const DeviceState::Value* next(const DeviceState& state);
    const DeviceState::Value* nextShown(const DeviceState& state, const Shows& shows);

    Values mValues = Values::None;
    std::string mKeys; ///< behind each other, in order, each there once; a text each would take far more
    std::vector<uint32_t> mKeyEnds;
    std::size_t mNextKey = 0;
    std::optional<std::string> mLastKey;

    bool mHasBegun = false;
    bool mHasMembers = false;
    std::string mText; ///< not in frames yet
    bool mIsComplete = false;
};

#endif
