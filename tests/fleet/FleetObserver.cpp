#include "tests/fleet/FleetObserver.h"

#include <poll.h>
#include <stdexcept>
#include <utility>

FleetObserver::FleetObserver(int port, const std::string& clientId, const std::string& topics, Take take)
    : mTopics(topics), mTake(std::move(take))
{
    constexpr int keepAlive = 600;
    mosquitto_lib_init();
    mClient.reset(mosquitto_new(clientId.c_str(), false, this));
    // A connection can be lost before the server knows the topics, so each one asks for them.
    mosquitto_connect_callback_set(mClient.get(),
                                   [](mosquitto* client, void* self, int)
                                   {
                                       const std::string& wanted = static_cast<FleetObserver*>(self)->mTopics;
                                       mosquitto_subscribe(client, nullptr, wanted.c_str(), 1);
                                   });
    mosquitto_message_callback_set(mClient.get(),
                                   [](mosquitto*, void* self, const mosquitto_message* message)
                                   {
                                       const auto* text = static_cast<const char*>(message->payload);
                                       const auto size = static_cast<std::size_t>(message->payloadlen);
                                       static_cast<FleetObserver*>(self)->mTake(
                                           message->topic, size == 0 ? "" : std::string(text, size));
                                   });
    if (mosquitto_connect(mClient.get(), "127.0.0.1", port, keepAlive) != MOSQ_ERR_SUCCESS)
        throw std::runtime_error("the observer cannot connect");
}

void FleetObserver::work()
{
    constexpr int most = 100; // messages
    for (int i = 0; i < most; ++i)
    {
        const std::optional<bool> hasWorked = workOnce();
        if (!hasWorked)
            mosquitto_reconnect(mClient.get());
        if (hasWorked != true)
            return;
    }
}

// Returns whether there was anything, and nothing if the connection is lost. mosquitto_loop() uses select(),
// which takes no descriptor beyond 1,023, and the devices of a test may have all of these.
std::optional<bool> FleetObserver::workOnce()
{
    mosquitto* const client = mClient.get();
    const bool isWriter = mosquitto_want_write(client);
    pollfd item{mosquitto_socket(client), static_cast<short>(POLLIN | (isWriter ? POLLOUT : 0)), 0};
    const bool hasWork = poll(&item, 1, 0) > 0;
    const bool isConnected = (!hasWork || mosquitto_loop_read(client, 1) == MOSQ_ERR_SUCCESS) &&
                             (!isWriter || mosquitto_loop_write(client, 1) == MOSQ_ERR_SUCCESS) &&
                             mosquitto_loop_misc(client) == MOSQ_ERR_SUCCESS;
    return isConnected ? std::optional(hasWork) : std::nullopt;
}

void FleetObserver::publish(const std::string& topic, const std::string& payload)
{
    mosquitto_publish(mClient.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                      1, false);
}
