#ifndef BROKER_ANSWERER_H
#define BROKER_ANSWERER_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "broker/Guard.h"
#include "broker/Reply.h"
#include "broker/Statistics.h"
#include "broker/base/Refusals.h"
#include "broker/state/DeviceState.h"
#include "protocol/BrokerDocuments.h"

/// Answers requests.
class Answerer
{
public:
    /// The answer to a request that is malformed or exceeds a limit. Without it the client would wait
    /// forever.
    static constexpr const char* refusal = "{}";

    /// Adds to the broker's statistics.
    using AddNumbers = std::function<void(Statistics::Numbers&)>;

    /// Appends the answer that lists the connected clients.
    using AppendClients = std::function<void(std::string&)>;

    /// Removes names for good. Returns the answer.
    using Forget = std::function<std::string(const Connection&, BrokerProtocol::Command&)>;

    /// All referenced objects must outlive this one.
    Answerer(Guard& guard, Refusals& refusals, DeviceState& state, AddNumbers addNumbers,
             AppendClients appendClients, Forget forget)
        : mGuard(guard), mRefusals(refusals), mState(state), mAddNumbers(std::move(addNumbers)),
          mAppendClients(std::move(appendClients)), mForget(std::move(forget))
    {
    }

    /// @param client the connection on which the request came
    Reply answer(Connection& client, std::string_view request);

    /// Counts a "Sync", which is answered elsewhere.
    void countSync() { ++mCounts[BrokerProtocol::syncWord]; }

private:
    Reply answer(Connection& client, BrokerProtocol::Command& command);
    Reply increment(const Connection& client, std::string_view counter);
    Reply setTimer(const Connection& client, const std::vector<std::string_view>& texts);
    std::string statistics();
    const std::string& clients();
    std::string decision(const Connection& client, const std::vector<std::string_view>& question);

    Guard& mGuard;
    Refusals& mRefusals;
    DeviceState& mState;
    AddNumbers mAddNumbers;
    AppendClients mAppendClients;
    Forget mForget;
    BrokerProtocol::Command mCommand;
    std::map<std::string_view, uint64_t> mCounts; // requests, by name
    Statistics::Process mProcess;
    std::string mClients; // the last answer, good until mClientsUntil
    TimePoint mClientsUntil{};
};

#endif
