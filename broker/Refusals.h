#ifndef BROKER_REFUSALS_H
#define BROKER_REFUSALS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "broker/Clock.h"

/// Why something that came from outside was not done.
enum class Refusal
{
    MalformedPost,
    MalformedRequest,
    SystemTime,
    Keys,
    KeyBytes,
    ValueBytes,
    StoredBytes,
    MessageBytes,
    Timers,
    Counters,
    NotifyBytes,
    Connections,
    UnreadReplies,
};

constexpr std::size_t refusalKinds = static_cast<std::size_t>(Refusal::UnreadReplies) + 1;

/// Counts what is refused and logs it, within reason: one that keeps misbehaving cannot flood the log.
class Refusals
{
public:
    /// So many lines of a kind are logged within a window; the next one tells how many were left out.
    static constexpr unsigned linesPerWindow = 5;
    static constexpr std::chrono::seconds window{10};

    /// @param what the line to log, at level 2
    void report(Refusal kind, const std::string& what, TimePoint now = Clock::now());

    uint64_t count(Refusal kind) const { return mKinds[static_cast<std::size_t>(kind)].count; }

    /// The name of a kind, as statistics show it.
    static const char* name(Refusal kind);

private:
    struct Kind
    {
        uint64_t count = 0;
        uint64_t silent = 0; ///< refused since the last line
        unsigned lines = 0;  ///< logged in this window
        TimePoint windowStart{};
    };

    std::array<Kind, refusalKinds> mKinds;
};

#endif
