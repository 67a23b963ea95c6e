#ifndef BROKER_POLICY_ACTION_H
#define BROKER_POLICY_ACTION_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

/// An action of a client that a policy can allow or deny.
enum class Action : uint8_t
{
    Post,
    Reset,
    Event,
    Timers,
    Counters,
    Query,
    See,
    Time, ///< sets the system clock; concerns no name
    Forget,
};

/// As policies name them, in the order of the enumeration.
constexpr std::array<std::string_view, 9> actionNames = {"post",  "reset", "event", "timer", "counter",
                                                         "query", "see",   "time",  "forget"};

constexpr std::size_t actionCount = actionNames.size();

constexpr std::string_view nameOf(Action action)
{
    return actionNames[static_cast<std::size_t>(action)];
}

/// A set of actions.
class Actions
{
public:
    constexpr Actions() = default;

    constexpr Actions(std::initializer_list<Action> actions)
    {
        for (const Action action : actions)
            add(action);
    }

    static constexpr Actions all()
    {
        Actions result;
        result.mBits = (1U << actionCount) - 1;
        return result;
    }

    constexpr void add(Action action) { mBits |= bit(action); }
    constexpr void add(Actions others) { mBits |= others.mBits; }
    constexpr bool has(Action action) const { return (mBits & bit(action)) != 0; }
    constexpr bool isEmpty() const { return mBits == 0; }

    constexpr Actions without(Actions others) const
    {
        Actions result;
        result.mBits = mBits & ~others.mBits;
        return result;
    }

    constexpr bool operator==(Actions other) const { return mBits == other.mBits; }

private:
    static constexpr uint32_t bit(Action action) { return 1U << static_cast<unsigned>(action); }

    uint32_t mBits = 0;
};

#endif
