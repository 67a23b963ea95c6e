#ifndef STATUSCTL_DEVICE_BROKERLINK_H
#define STATUSCTL_DEVICE_BROKERLINK_H

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <zmq.hpp>

#include "statusmanager/StatusTypes.h"

/// Notices when the broker goes and comes back, by an idle connection of its own. The library does not report
/// that.
class BrokerLink
{
public:
    /// @param tell called on the link's thread: true when the connection is up, false when it is lost
    explicit BrokerLink(std::function<void(bool isUp)> tell);
    ~BrokerLink();

    BrokerLink(const BrokerLink&) = delete;
    BrokerLink& operator=(const BrokerLink&) = delete;

    /// Waits at most 5 s for the first connection, so that its loss is noticed.
    void waitUntilUp();

    /// Returns all values of the broker. Any thread may call it. It does not use the library: the library's
    /// thread would wait without limit if the broker went meanwhile.
    /// @param limit how long to wait for the answer; without a limit, a hung broker is waited for
    /// @returns nothing if the connection is down or gets lost, and after end()
    /// @throws Failure on a bad reply, and at the limit
    std::optional<StatusMap> values(std::optional<std::chrono::milliseconds> limit = {});

    /// Stops all calls of `tell`, and ends values() on other threads.
    void end();

private:
    void watch();
    void take(bool hasCome);
    std::optional<std::string> ask(const std::string& request, const std::function<bool()>& isWanted);

    const std::function<void(bool)> mTell;
    std::atomic<unsigned> mTurn{0}; // how often the connection has come and gone
    std::promise<void> mFirst;      // set at the first connection
    zmq::context_t mContext;
    std::thread mThread;
};

#endif
