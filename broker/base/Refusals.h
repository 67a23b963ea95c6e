#ifndef BROKER_BASE_REFUSALS_H
#define BROKER_BASE_REFUSALS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
    Denied,       ///< by the policy
    Audited,      ///< would be denied, if the policy did not only log
    AuditedView,  ///< the same, to be told of something
    UnknownOwner, ///< the policy cannot be applied to the connection
    OwnerGone,    ///< values have ended with their owner
    Quota,        ///< beyond the share of a user
};

constexpr std::size_t refusalKinds = static_cast<std::size_t>(Refusal::Quota) + 1;

/// So much of what came from outside is logged: enough to recognise it by. For "%.*s".
inline int excerptLength(std::string_view text)
{
    constexpr std::size_t enough = 200;
    return static_cast<int>(text.size() < enough ? text.size() : enough);
}

/// A source of refused things: a connection, for example.
class Refused
{
public:
    uint64_t refusals = 0;
};

/// Counts what is refused and logs it, within reason: one that keeps misbehaving cannot flood the log.
class Refusals
{
public:
    /// At most this many lines of a kind are logged within a window. The next one reports how many were left
    /// out.
    static constexpr unsigned linesPerWindow = 5;
    static constexpr std::chrono::seconds window{10};

    /// @param now for tests: what to measure the windows with
    explicit Refusals(TimePoint (*now)() = &Clock::now) : mNow(now) {}
    ~Refusals();

    Refusals(const Refusals&) = delete;
    Refusals& operator=(const Refusals&) = delete;

    /// Names a source in the log; nothing while it is not known who that is. Then the line waits for tell().
    using Describe = std::function<std::optional<std::string>(Refused&)>;
    void setDescribe(Describe describe) { mDescribe = std::move(describe); }

    /// It is known now who the source is, or it goes.
    void tell(const Refused& source, const std::string& name);

    /// The source whose line waits longest, and since when; null if no line waits.
    std::pair<Refused*, TimePoint> waitingLongest() const
    {
        return mHeld.empty() ? std::pair<Refused*, TimePoint>{}
                             : std::pair{mHeld.front().source, mHeld.front().since};
    }

    /// As long as it lives, refusals come from this source, which must live as long.
    class From
    {
    public:
        From(Refusals& refusals, Refused& source)
            : mRefusals(refusals), mBefore(std::exchange(refusals.mSource, &source))
        {
        }
        ~From() { mRefusals.mSource = mBefore; }
        From(const From&) = delete;
        From& operator=(const From&) = delete;

    private:
        Refusals& mRefusals;
        Refused* mBefore;
    };

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

    // A line that waits. There are never many, as only a few are logged in a window.
    struct Held
    {
        Refused* source;
        std::string text;
        uint64_t silent;
        TimePoint since;
    };

    bool isToBeLogged(Kind& kind);
    static void log(const Held& line, const std::string& name);

    Refused* mSource = nullptr;
    Describe mDescribe;
    std::vector<Held> mHeld;
    TimePoint (*const mNow)();
    std::array<Kind, refusalKinds> mKinds;
};

#endif
