#ifndef BENCHMARKS_MICRO_BROKERCORE_H
#define BENCHMARKS_MICRO_BROKERCORE_H

#include <memory>
#include <string>
#include <string_view>

#include "broker/Answerer.h"
#include "broker/Guard.h"
#include "broker/state/DeviceState.h"
#include "broker/wire/NotificationLog.h"
#include "protocol/BrokerDocuments.h"

/// The broker without its sockets.
class BrokerCore
{
public:
    /// @param keys of the samples that it holds
    /// @param policy by which its client posts and asks; it must allow the samples
    explicit BrokerCore(std::size_t keys,
                        std::unique_ptr<const Policy> policy = std::make_unique<const Policy>());

    BrokerCore(const BrokerCore&) = delete;
    BrokerCore& operator=(const BrokerCore&) = delete;

    /// Handles the text of a post and makes the bytes of its notification, which count as read at once.
    /// Returns false if nothing is published.
    bool post(std::string_view text);

    /// Handles the text of a request and returns the bytes of its answer.
    const std::string& ask(std::string_view text);

    const DeviceState& device() const { return mDevice; }

private:
    Limits mLimits;
    Refusals mRefusals;
    DeviceState mDevice{mLimits, mRefusals};
    Identities mIdentities;
    Guard mGuard;
    Connection mClient{Descriptor(), Handshake::Kind::Post, Clock::now()};
    Answerer mAnswerer{mGuard,
                       mRefusals,
                       mDevice,
                       [](Statistics::Numbers&) {},
                       [](std::string&) {},
                       [](const Connection&, BrokerProtocol::Command&) { return std::string(); }};
    BrokerProtocol::Command mCommand;
    std::string mNotification;
    NotificationLog mLog;
    std::string mAnswer;
};

#endif
