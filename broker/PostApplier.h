#ifndef BROKER_POSTAPPLIER_H
#define BROKER_POSTAPPLIER_H

#include <cstdint>
#include <string>
#include <string_view>

#include "broker/Guard.h"
#include "broker/Options.h"
#include "broker/Outbox.h"
#include "broker/OwnedValues.h"
#include "broker/PostPort.h"
#include "broker/base/Refusals.h"
#include "broker/state/DeviceState.h"
#include "protocol/BrokerDocuments.h"

/// Applies posts as far as the policy lets their clients, and publishes the results.
class PostApplier
{
public:
    /// All arguments must outlive this object.
    PostApplier(const Options& options, Guard& guard, Refusals& refusals, DeviceState& state,
                OwnedValues& ownedValues, Outbox& outbox);

    /// @param client the connection on which the post came
    void apply(const PostConnection& client, std::string_view post);

    /// Posts for the broker itself, to end values whose owner has gone.
    void endValues(Posters::Id owner, const PolicyTie& rule, const std::vector<std::string_view>& keys);

    uint64_t count() const { return mCount; }

private:
    void apply(const PostConnection& client, BrokerProtocol::Command& command);
    void refuse(std::string_view post);
    void publish(const char* key, const DeviceState::Members& members, uint64_t events);
    void setSystemTime(const Connection& client, uint32_t seconds);

    const Options& mOptions;
    Guard& mGuard;
    Refusals& mRefusals;
    DeviceState& mState;
    OwnedValues& mOwnedValues;
    Outbox& mOutbox;
    const Posters::Id mSelf; // the broker as a client
    BrokerProtocol::Command mCommand;
    std::string mNotification;
    uint64_t mCount = 0;
};

#endif
