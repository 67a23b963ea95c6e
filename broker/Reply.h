#ifndef BROKER_REPLY_H
#define BROKER_REPLY_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "broker/state/DeviceState.h"

/// The text of an answer, produced as the client reads it. The whole state of a device may be many times
/// larger than what a connection should hold.
///
/// Each value is read when its turn comes, so none is older than the request.
class Reply
{
public:
    /// A short text.
    explicit Reply(std::string text) : mText(std::move(text)), mIsComplete(true) {}

    /// All values of the device.
    static Reply ofAll() { return Reply(Values::All); }

    /// The values of the listed keys that exist.
    static Reply of(std::vector<std::string_view> keys);

    /// The details of the listed keys that exist.
    static Reply detailsOf(std::vector<std::string_view> keys);

    /// All timers, or counters, of the device.
    static Reply ofTimers() { return Reply(Values::Timers); }
    static Reply ofCounters() { return Reply(Values::Counters); }

    enum class Kind
    {
        Value,
        Measure, ///< a timer or a counter
    };

    /// Produced at a time. As much may wait for a client that does not read.
    static constexpr std::size_t pieceBytes = std::size_t{8} * 1024;

    /// Appends frames of the message, about this many bytes. Returns true when the message is complete.
    /// @param shows whether a name is visible to the client; empty: all names are
    using Shows = std::function<bool(Kind, std::string_view)>;
    bool produce(const DeviceState& state, const Shows& shows, std::size_t bytes, std::string& to);

    /// Memory that the answer holds.
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
    void keep(std::size_t bytes);
    const char* key() const;
    void begin();
    bool appendNext(const DeviceState& state, const Shows& shows);
    bool appendNextMeasure(const DeviceState& state, const Shows& shows);
    void appendName(std::string_view name);
    const DeviceState::Value* next(const DeviceState& state);
    const DeviceState::Value* nextShown(const DeviceState& state, const Shows& shows);

    Values mValues = Values::None;
    std::string mKeys; ///< the keys one after another, sorted and unique; a string for each would take far
                       ///< more memory
    std::vector<uint32_t> mKeyEnds;
    std::size_t mNextKey = 0;
    std::optional<std::string> mLastKey;

    bool mHasBegun = false;
    bool mHasMembers = false;
    std::string mText; ///< not in frames yet
    bool mIsComplete = false;
};

#endif
