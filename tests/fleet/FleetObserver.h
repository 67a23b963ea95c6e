#ifndef TESTS_FLEET_FLEETOBSERVER_H
#define TESTS_FLEET_FLEETOBSERVER_H

#include <functional>
#include <memory>
#include <mosquitto.h>
#include <optional>
#include <string>

/// Reads what a server has, over every restart of it: the server keeps what comes meanwhile. Has no thread:
/// call work().
class FleetObserver
{
public:
    using Take = std::function<void(const std::string& topic, const std::string& payload)>;

    /// Connects. Throws std::runtime_error.
    FleetObserver(int port, const std::string& clientId, const std::string& topics, Take take);

    /// Takes what has come, and connects again if it must.
    void work();

    void publish(const std::string& topic, const std::string& payload);

private:
    struct Destroyer
    {
        void operator()(mosquitto* client) const { mosquitto_destroy(client); }
    };

    std::optional<bool> workOnce();

    const std::string mTopics;
    Take mTake;
    std::unique_ptr<mosquitto, Destroyer> mClient;
};

#endif
