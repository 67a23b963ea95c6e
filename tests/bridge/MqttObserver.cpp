#include "tests/bridge/MqttObserver.h"

#include <mqtt_protocol.h>
#include <stdexcept>

namespace
{

constexpr const char* mark = "observer/ready";

} // namespace

MqttObserver::MqttObserver(int port, const std::string& ca, const std::string& identity)
    : mClient(mosquitto_new(nullptr, true, this))
{
    mosquitto_lib_init();
    mosquitto* const client = mClient.get();
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    if (!ca.empty())
        mosquitto_tls_set(client, ca.c_str(), nullptr,
                          identity.empty() ? nullptr : (identity + ".crt").c_str(),
                          identity.empty() ? nullptr : (identity + ".key").c_str(), nullptr);
    mosquitto_message_callback_set(
        client,
        [](mosquitto*, void* self, const mosquitto_message* message)
        {
            auto& observer = *static_cast<MqttObserver*>(self);
            const std::string payload(static_cast<const char*>(message->payload),
                                      static_cast<std::size_t>(message->payloadlen));
            observer.mMessages.push_back({message->topic, payload, message->retain});
            if (payload.empty())
                observer.mValues.erase(message->topic);
            else
                observer.mValues[message->topic] = payload;
        });
    if (mosquitto_connect(client, "localhost", port, 60) != MOSQ_ERR_SUCCESS)
        throw std::runtime_error("the observer cannot connect");
    // The server sends what it has retained before it takes the mark.
    mosquitto_subscribe(client, nullptr, "#", 1);
    mosquitto_publish(client, nullptr, mark, 1, "x", 1, false);
    if (!waitForValue(mark, "x"))
        throw std::runtime_error("the server does not answer the observer");
    mValues.erase(mark);
}

void MqttObserver::work()
{
    constexpr int patience = 10;
    if (mosquitto_loop(mClient.get(), patience, 1) != MOSQ_ERR_SUCCESS)
        mosquitto_reconnect(mClient.get());
}

std::vector<std::string> MqttObserver::payloadsOf(const std::string& topic) const
{
    std::vector<std::string> payloads;
    for (const Message& message : mMessages)
    {
        if (message.topic == topic)
            payloads.push_back(message.payload);
    }
    return payloads;
}

void MqttObserver::publish(const std::string& topic, const std::string& payload, bool isRetained,
                           uint32_t expiry)
{
    mosquitto_property* properties = nullptr;
    if (expiry != 0)
        mosquitto_property_add_int32(&properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, expiry);
    mosquitto_publish_v5(mClient.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                         payload.data(), 1, isRetained, properties);
    mosquitto_property_free_all(&properties);
}
