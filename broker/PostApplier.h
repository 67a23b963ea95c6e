#ifndef BROKER_POSTAPPLIER_H
#define BROKER_POSTAPPLIER_H

#include <cstdint>
#include <string>
#include <string_view>

#include "broker/Guard.h"
#include "broker/Options.h"
#include "broker/Outbox.h"
#include "broker/PostPort.h"
#include "broker/base/Refusals.h"
#include "broker/state/DeviceState.h"
#include "protocol/BrokerDocuments.h"

/// Does what posts ask for, as far as their clients may, and publishes what follows.
class PostApplier
{
public:
    /// All must outlive it.
    PostApplier(const Options& options, Guard& guard, Refusals& refusals, DeviceState& state, Outbox& outbox)
        : mOptions(options), mGuard(guard), mRefusals(refusals), mState(state), mOutbox(outbox)
    {
    }

    /// @param client the connection on which it came
    void apply(const PostConnection& client, std::string_view post);

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
    Outbox& mOutbox;
    BrokerProtocol::Command mCommand;
    std::string mNotification;
    uint64_t mCount = 0;
};

#endif
