#ifndef BROKER_OWNEDVALUES_H
#define BROKER_OWNEDVALUES_H

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "broker/base/Clock.h"
#include "broker/policy/Policy.h"
#include "broker/state/DeviceState.h"

/// Values that end with their owner, as far as the policy names some: the client that posted such a value
/// last owns it. When that client has gone, and it or another of its service has not come within the grace
/// time, the value is marked. No sockets: clients are numbers here.
class OwnedValues
{
public:
    /// The broker around it.
    struct World
    {
        /// The client is connected.
        std::function<bool(Posters::Id)> isHere;

        /// The client that has come back in the place of one that has gone: nobody if none has, nothing while
        /// that is being found out.
        /// @param since when it has gone; TimePoint::min() if that is not known
        std::function<std::optional<Posters::Id>(Posters::Id gone, TimePoint since)> successor;

        /// Resets the values, or sets them, as their rule says.
        std::function<void(Posters::Id gone, const PolicyTie& rule,
                           const std::vector<std::string_view>& keys)>
            mark;
    };

    /// It may take so long to find out who has come back.
    static constexpr std::chrono::milliseconds longestSearch{80};

    /// The state must outlive it.
    OwnedValues(DeviceState& state, World world) : mState(state), mWorld(std::move(world)) {}

    OwnedValues(const OwnedValues&) = delete;
    OwnedValues& operator=(const OwnedValues&) = delete;

    /// The policy in force, until the next call. Values that it newly names belong to their last poster; one
    /// that is not here has gone just now. So it is with values that were loaded.
    void setPolicy(const Policy& policy, TimePoint now);

    /// Whether the rest must be called.
    bool isUsed() const { return mPolicy != nullptr && mPolicy->hasTies(); }

    /// To be called when the state has dealt with the post, of which it may have refused a part. The empty
    /// text resets.
    void posted(Posters::Id by, const DeviceState::Members& values);
    void reset(Posters::Id by, const std::vector<std::string_view>& keys);

    /// These are not there any more.
    void forget(const std::vector<std::string_view>& keys);

    /// The client has gone.
    /// @param canComeBack if not, nobody takes its place
    /// @param since when it may have ended at the earliest; a client of its service that came later may take
    ///              its place
    void gone(Posters::Id client, bool canComeBack, TimePoint since, TimePoint now);

    TimePoint due() const { return mDue; }
    void doWhatIsDue(TimePoint now);

private:
    struct Owner
    {
        std::optional<TimePoint> goneAt;
        TimePoint since{}; // if it has gone: when, as far as that is known
        bool canComeBack = true;
        TimePoint end{};                 // if it has gone: of the shortest grace time
        TimePoint next{};                // the same: when to look for its successor, or to mark values
        std::set<std::string_view> keys; // they stand in the list of all
    };
    using Owners = std::map<Posters::Id, Owner>; // each is held
    using Keys = std::map<std::string, Posters::Id, std::less<>>;

    void follow(std::string_view key, Posters::Id by);
    void own(std::string_view key, Posters::Id client);
    Keys::iterator disown(Keys::iterator key);
    Owner& ownerFor(Posters::Id client);
    void leave(Posters::Id client, std::string_view key);
    void plan(Owner& owner, TimePoint now);
    void settle(Posters::Id client, Owner& owner, TimePoint now);
    void handOver(const Owner& owner, Posters::Id successor);
    void wait(Owner& owner, TimePoint now);
    void mark(Posters::Id client, const Owner& owner, TimePoint now);

    DeviceState& mState;
    const World mWorld;
    const Policy* mPolicy = nullptr;
    Owners mOwners;
    Keys mKeys;
    TimePoint mDue = TimePoint::max();
};

#endif
