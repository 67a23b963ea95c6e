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

/// Notices when the broker goes and comes back, which the library tells nobody, by an idle connection of its
/// own.
class BrokerLink
{
public:
    /// @param tell called on the link's thread, with true when the connection stands and false when it is
    /// lost
    explicit BrokerLink(std::function<void(bool isUp)> tell);
    ~BrokerLink();

    BrokerLink(const BrokerLink&) = delete;
    BrokerLink& operator=(const BrokerLink&) = delete;

    /// Waits for the first connection, so that its loss is noticed; but not for long.
    void waitUntilUp();

    /// All values that the broker has. Any thread. The library is not asked: its thread would wait without
    /// limit if the broker went meanwhile.
    /// @param limit the time that the broker has; a broker that hangs is waited for without one
    /// @returns nothing where there is no connection, or it is lost meanwhile, and after end()
    /// @throws Failure on a bad reply, and at the limit
    std::optional<StatusMap> values(std::optional<std::chrono::milliseconds> limit = {});

    /// Tells nothing any more, and ends values() on other threads.
    void end();

private:
    void watch();
    void take(const std::string& event);
    std::optional<std::string> ask(const std::string& request, const std::function<bool()>& isWanted);

    const std::function<void(bool)> mTell;
    std::atomic<unsigned> mTurn{0}; // counts how often the connection has come and gone
    std::promise<void> mFirst;      // kept at the first connection
    zmq::context_t mContext;
    std::thread mThread;
};

#endif
