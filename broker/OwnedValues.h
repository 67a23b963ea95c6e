#ifndef BROKER_OWNEDVALUES_H
#define BROKER_OWNEDVALUES_H

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "broker/policy/Policy.h"
#include "broker/state/DeviceState.h"
#include "daemon/Clock.h"

/// Marks values when their owner has gone. The policy names such values; the client that posted one last owns
/// it. A value is marked if neither its owner nor another client of the same service returns within the grace
/// time. Has no sockets: clients are numbers here.
class OwnedValues
{
public:
    /// Access to the rest of the broker.
    struct World
    {
        /// Whether the client is connected.
        std::function<bool(Posters::Id)> isHere;

        /// The client that has replaced a client that has gone. Returns Posters::nobody if there is none, and
        /// nothing while the search lasts.
        /// @param since when the client left; TimePoint::min() if unknown
        std::function<std::optional<Posters::Id>(Posters::Id gone, TimePoint since)> successor;

        /// Resets the values or sets them, as their rule says.
        std::function<void(Posters::Id gone, const PolicyTie& rule,
                           const std::vector<std::string_view>& keys)>
            mark;
    };

    /// The longest time that the search for a successor may take.
    static constexpr std::chrono::milliseconds longestSearch{80};

    /// The state must outlive this object.
    OwnedValues(DeviceState& state, World world) : mState(state), mWorld(std::move(world)) {}

    OwnedValues(const OwnedValues&) = delete;
    OwnedValues& operator=(const OwnedValues&) = delete;

    /// The policy in force, until the next call. A value that the policy newly names belongs to its last
    /// poster. A poster that is not connected counts as gone just now. The same applies to loaded values.
    void setPolicy(const Policy& policy, TimePoint now);

    /// Whether the functions below must be called.
    bool isUsed() const { return mPolicy != nullptr && mPolicy->hasTies(); }

    /// Call these when the state has processed the post. The state may have refused a part of it. The empty
    /// text resets.
    void posted(Posters::Id by, const DeviceState::Members& values);
    void reset(Posters::Id by, const std::vector<std::string_view>& keys);

    /// These keys no longer exist.
    void forget(const std::vector<std::string_view>& keys);

    /// The client has gone.
    /// @param canComeBack false: no other client takes its place
    /// @param since the earliest time at which it may have ended: a client of its service that connected
    /// later
    ///              may take its place
    void gone(Posters::Id client, bool canComeBack, TimePoint since, TimePoint now);

    TimePoint due() const { return mDue; }
    void doWhatIsDue(TimePoint now);

private:
    struct Owner
    {
        std::optional<TimePoint> goneAt;
        TimePoint since{}; // if it has gone: when, as far as that is known
        bool canComeBack = true;
        TimePoint end{};                 // if it has gone: the end of the shortest grace time
        TimePoint next{};                // if it has gone: when to look for its successor, or to mark values
        std::set<std::string_view> keys; // views of the names in mKeys
    };
    using Owners = std::map<Posters::Id, Owner>; // each owner is held in Posters
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
