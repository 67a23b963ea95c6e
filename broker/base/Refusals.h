#ifndef BROKER_BASE_REFUSALS_H
#define BROKER_BASE_REFUSALS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "broker/base/Clock.h"

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
    Subscriptions,
    Connections,
    Memory,
};

constexpr std::size_t refusalKinds = static_cast<std::size_t>(Refusal::Memory) + 1;

/// So much of what came from outside is logged: enough to recognise it by. For "%.*s".
inline int excerptLength(std::string_view text)
{
    constexpr std::size_t enough = 200;
    return static_cast<int>(text.size() < enough ? text.size() : enough);
}

/// Counts what is refused and logs it, within reason: one that keeps misbehaving cannot flood the log.
class Refusals
{
public:
    /// So many lines of a kind are logged within a window; the next one tells how many were left out.
    static constexpr unsigned linesPerWindow = 5;
    static constexpr std::chrono::seconds window{10};

    /// @param now for tests: what to measure the windows with
    explicit Refusals(TimePoint (*now)() = &Clock::now) : mNow(now) {}

    /// Counts it, and logs the text at level 2, within reason.
    void report(Refusal kind, const char* format, ...) __attribute__((format(printf, 3, 4), cold));

    /// A message beyond the limit, or one that does not end, for which its connection is closed.
    void reportLong(const char* message, bool isEndless, std::size_t limit);

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

    bool isToBeLogged(Kind& kind);

    TimePoint (*const mNow)();
    std::array<Kind, refusalKinds> mKinds;
};

#endif
