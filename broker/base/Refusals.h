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

#include "daemon/Clock.h"

/// Why the broker did not do what came from outside.
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
    Audited,      ///< would be denied if the policy were not in audit mode
    AuditedView,  ///< the same for seeing a value or an event
    UnknownOwner, ///< the policy cannot be applied to the connection
    OwnerGone,    ///< values were ended because their owner has gone
    Quota,        ///< beyond a user's quota
};

constexpr std::size_t refusalKinds = static_cast<std::size_t>(Refusal::Quota) + 1;

/// How much of a text from outside is logged: enough to recognise it. For "%.*s".
inline int excerptLength(std::string_view text)
{
    constexpr std::size_t enough = 200;
    return static_cast<int>(text.size() < enough ? text.size() : enough);
}

/// A source of refusals, such as a connection.
class Refused
{
public:
    uint64_t refusals = 0;
};

/// Counts refusals, and logs them at a limited rate: no source can flood the log.
class Refusals
{
public:
    /// At most this many lines of a kind are logged within a window. The next line says how many were left
    /// out.
    static constexpr unsigned linesPerWindow = 5;
    static constexpr std::chrono::seconds window{10};

    /// @param now the clock that measures the windows; tests pass their own
    explicit Refusals(TimePoint (*now)() = &Clock::now) : mNow(now) {}
    ~Refusals();

    Refusals(const Refusals&) = delete;
    Refusals& operator=(const Refusals&) = delete;

    /// Names a source in the log; returns nothing while its name is being looked for. Then the line waits for
    /// tell().
    using Describe = std::function<std::optional<std::string>(Refused&)>;
    void setDescribe(Describe describe) { mDescribe = std::move(describe); }

    /// The source's name is known now, or the source is about to be destroyed.
    void tell(const Refused& source, const std::string& name);

    /// The source whose line has waited longest, and since when; null if no line waits.
    std::pair<Refused*, TimePoint> waitingLongest() const
    {
        return mHeld.empty() ? std::pair<Refused*, TimePoint>{}
                             : std::pair{mHeld.front().source, mHeld.front().since};
    }

    /// While this object lives, refusals come from this source, which must outlive it.
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

    /// Counts the refusal, and logs the text at level 2, at a limited rate.
    void report(Refusal kind, const char* format, ...) __attribute__((format(printf, 3, 4), cold));

    /// Reports a message beyond the limit, or an endless one, for which the connection is closed.
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

    // A waiting line. There are never many, since only a few are logged in a window.
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
