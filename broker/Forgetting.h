#ifndef BROKER_FORGETTING_H
#define BROKER_FORGETTING_H

#include <string>
#include <string_view>
#include <vector>

#include "broker/Guard.h"
#include "broker/NotifyPort.h"
#include "broker/Outbox.h"
#include "broker/OwnedValues.h"
#include "broker/base/Refusals.h"
#include "broker/state/DeviceState.h"
#include "protocol/BrokerDocuments.h"

/// Removes names for good, if the policy lets the client do so.
///
/// Subscribers receive a forgotten value as a reset. A subscriber that is behind gets it later, from the
/// state. So the state keeps the key until every subscriber has received the reset, and only then drops it.
class Forgetting
{
public:
    /// All arguments must outlive this object.
    Forgetting(Guard& guard, Refusals& refusals, DeviceState& state, OwnedValues& ownedValues, Outbox& outbox,
               NotifyPort& notify)
        : mGuard(guard), mRefusals(refusals), mState(state), mOwnedValues(ownedValues), mOutbox(outbox),
          mNotify(notify)
    {
    }

    /// Performs a ForgetStatus, ForgetTimers or ForgetCounters. Removes the denied names from the command.
    /// @returns the answer: the names that existed and are now gone
    std::string forget(const Connection& client, BrokerProtocol::Command& command);

    /// Drops forgotten keys whose reset every subscriber has received; at intervals. All changes must have
    /// been published.
    void dropWhatAllKnow(TimePoint now);

    /// When to call dropWhatAllKnow() although nothing has arrived.
    TimePoint due() const { return mState.forgotten() == 0 ? TimePoint::max() : mNextLook; }

private:
    std::vector<std::string_view> forgetNames(const BrokerProtocol::Command& command);
    std::vector<std::string_view> forgetValues(const std::vector<std::string_view>& keys);

    Guard& mGuard;
    Refusals& mRefusals;
    DeviceState& mState;
    OwnedValues& mOwnedValues;
    Outbox& mOutbox;
    NotifyPort& mNotify;
    TimePoint mNextLook{};
    std::chrono::milliseconds mPause{0};
};

#endif
