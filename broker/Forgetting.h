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

/// Removes names for good, as far as clients may.
///
/// A forgotten value reaches subscribers as a reset. One that is behind gets it later, from the state,
/// so the state keeps the key until every subscriber has been told. Only then is it dropped.
class Forgetting
{
public:
    /// All must outlive it.
    Forgetting(Guard& guard, Refusals& refusals, DeviceState& state, OwnedValues& ownedValues, Outbox& outbox,
               NotifyPort& notify)
        : mGuard(guard), mRefusals(refusals), mState(state), mOwnedValues(ownedValues), mOutbox(outbox),
          mNotify(notify)
    {
    }

    /// Does what a ForgetStatus, ForgetTimers or ForgetCounters asks for. Takes the names that are denied out
    /// of the command.
    /// @returns the answer: the names that were there and are gone
    std::string forget(const Connection& client, BrokerProtocol::Command& command);

    /// Drops the forgotten keys of which every subscriber has been told, once in a while. All that has
    /// changed must have been published.
    void dropWhatAllKnow(TimePoint now);

    /// When dropWhatAllKnow() is to be called although nothing has come.
    TimePoint due() const { return mState.forgotten() == 0 ? TimePoint::max() : mNextLook; }

private:
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
