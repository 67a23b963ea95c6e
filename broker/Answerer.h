#ifndef BROKER_ANSWERER_H
#define BROKER_ANSWERER_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "broker/Connections.h"
#include "broker/Reply.h"
#include "broker/Statistics.h"
#include "broker/base/Refusals.h"
#include "broker/state/DeviceState.h"
#include "protocol/BrokerDocuments.h"

/// Answers requests.
class Answerer
{
public:
    /// The answer to what cannot be understood, and to what exceeds a limit: nobody waits in vain.
    static constexpr const char* refusal = "{}";

    /// Adds to what the broker tells about itself.
    using AddNumbers = std::function<void(Statistics::Numbers&)>;

    /// All must outlive it.
    Answerer(Refusals& refusals, DeviceState& state, Connections& connections, AddNumbers addNumbers)
        : mRefusals(refusals), mState(state), mConnections(connections), mAddNumbers(std::move(addNumbers))
    {
    }

    Reply answer(std::string_view request);

    /// Counts a "Sync", which is answered elsewhere.
    void countSync() { ++mCounts[BrokerProtocol::syncWord]; }

private:
    Reply answer(const BrokerProtocol::Command& command);
    std::string statistics();
    std::string clients();

    Refusals& mRefusals;
    DeviceState& mState;
    Connections& mConnections;
    AddNumbers mAddNumbers;
    BrokerProtocol::Command mCommand;
    std::map<std::string_view, uint64_t> mCounts; // of requests, by name
    Statistics::Process mProcess;
};

#endif
