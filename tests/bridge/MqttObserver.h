#ifndef TESTS_BRIDGE_MQTTOBSERVER_H
#define TESTS_BRIDGE_MQTTOBSERVER_H

#include <map>
#include <memory>
#include <mosquitto.h>
#include <string>
#include <vector>

#include "tests/support/Wait.h"

/// A client of the server that subscribes to everything.
class MqttObserver
{
public:
    struct Message
    {
        std::string topic;
        std::string payload;
        bool wasRetained; ///< the server had it before the subscription
    };

    /// Returns when the server has taken the subscription and sent what it has retained.
    /// @param ca the certificate that TLS trusts; empty: no TLS
    /// @param identity the path of the observer's own certificate and key, without .crt and .key; empty: none
    explicit MqttObserver(int port, const std::string& ca = "", const std::string& identity = "");

    /// Waits until the condition holds for what has arrived.
    template <typename Condition>
    bool waitFor(Condition condition, std::chrono::milliseconds deadline = testDeadline)
    {
        return eventually([&] { return condition() || (work(), false); }, deadline);
    }

    /// Waits until a topic has this value; empty: no message.
    bool waitForValue(const std::string& topic, const std::string& value)
    {
        return waitFor([&] { return valueOf(topic) == value; });
    }

    /// The last message of a topic; empty: none, or deleted.
    std::string valueOf(const std::string& topic) const
    {
        const auto found = mValues.find(topic);
        return found == mValues.end() ? std::string() : found->second;
    }

    /// All messages, in the order of their arrival.
    const std::vector<Message>& messages() const { return mMessages; }

    /// The topics that are not deleted, with their last messages.
    const std::map<std::string, std::string>& values() const { return mValues; }

    std::vector<std::string> payloadsOf(const std::string& topic) const;

    /// @param expiry in seconds; 0: none
    void publish(const std::string& topic, const std::string& payload, bool isRetained = false,
                 uint32_t expiry = 0);

private:
    struct Destroyer
    {
        void operator()(mosquitto* client) const { mosquitto_destroy(client); }
    };

    void work();

    std::unique_ptr<mosquitto, Destroyer> mClient;
    std::vector<Message> mMessages;
    std::map<std::string, std::string> mValues;
};

#endif
