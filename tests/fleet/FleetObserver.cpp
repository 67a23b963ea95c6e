#include "tests/fleet/FleetObserver.h"

#include <stdexcept>
#include <utility>

FleetObserver::FleetObserver(int port, const std::string& clientId, const std::string& topics, Take take)
    : mTake(std::move(take))
{
    constexpr int keepAlive = 600;
    mosquitto_lib_init();
    mClient.reset(mosquitto_new(clientId.c_str(), false, this));
    mosquitto_message_callback_set(mClient.get(),
                                   [](mosquitto*, void* self, const mosquitto_message* message)
                                   {
                                       const auto* text = static_cast<const char*>(message->payload);
                                       const auto size = static_cast<std::size_t>(message->payloadlen);
                                       static_cast<FleetObserver*>(self)->mTake(
                                           message->topic, size == 0 ? "" : std::string(text, size));
                                   });
    if (mosquitto_connect(mClient.get(), "127.0.0.1", port, keepAlive) != MOSQ_ERR_SUCCESS ||
        mosquitto_subscribe(mClient.get(), nullptr, topics.c_str(), 1) != MOSQ_ERR_SUCCESS)
        throw std::runtime_error("the observer cannot connect");
}

void FleetObserver::work()
{
    constexpr int most = 100; // messages
    for (int i = 0; i < most; ++i)
    {
        if (mosquitto_loop(mClient.get(), 0, 1) == MOSQ_ERR_SUCCESS)
            continue;
        mosquitto_reconnect(mClient.get());
        return;
    }
}

void FleetObserver::publish(const std::string& topic, const std::string& payload)
{
    mosquitto_publish(mClient.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                      1, false);
}
