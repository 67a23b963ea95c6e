#ifndef MQTTLINK_MQTTLINK_H
#define MQTTLINK_MQTTLINK_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <mosquitto.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "daemon/Descriptor.h"
#include "mqttlink/ServerOptions.h"

/// Why a connection to the server cannot be made, or was lost.
class MqttError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// A message from the server.
struct ReceivedMessage
{
    std::string topic;
    std::string payload;
    bool isRetained = false;        ///< the server keeps it, or did
    std::optional<uint32_t> expiry; ///< seconds that are left of its time
};

/// Gets the events of a connection. Called only by MqttLink's operations, on their thread. Must not destroy
/// the link.
class IMqttReceiver
{
public:
    /// The server has accepted the connection.
    /// @param receiveMaximum how many messages may be under way
    virtual void onAccepted(unsigned receiveMaximum) = 0;
    virtual void onSubscribed(bool isGranted) = 0;

    /// The server has taken a message.
    /// @param refusal the reason why it was refused; empty: it was not
    virtual void onAcknowledged(int message, const std::string& refusal) = 0;
    virtual void onMessage(const ReceivedMessage& message) = 0;

protected:
    ~IMqttReceiver() = default;
};

/// One connection to the server, from the first attempt to its end. Never waits: the caller polls socket()
/// and calls work(). Only the search for the server's address has a thread of its own, since the system's
/// function for it waits.
class MqttLink
{
public:
    using Received = ReceivedMessage;

    struct Message
    {
        std::string topic;
        std::string payload;
        bool isRetained = true;
        uint32_t expiry = 0; ///< in seconds; 0: none
    };

    /// Begins to connect. Throws MqttError if the options are wrong, for example if a certificate cannot be
    /// read.
    /// @param host     the server's name, or its address
    /// @param clientId by which the server knows this client
    /// @param will     what the server publishes when the connection is lost
    MqttLink(const ServerOptions& options, const std::string& host, const std::string& clientId,
             const std::optional<Message>& will, IMqttReceiver& receiver);

    /// Ends the connection at once. If the search for the address still runs, its thread is left to itself.
    ~MqttLink();

    MqttLink(const MqttLink&) = delete;
    MqttLink& operator=(const MqttLink&) = delete;

    /// What to poll.
    int descriptor() const;
    short wanted() const;

    /// Reads, writes, and sends what keeps the connection alive. Call it when the descriptor is ready, and
    /// once a second. Throws MqttError when the connection is lost.
    /// @param events of the poll; 0: none
    void work(short events);

    // ---- Throw MqttError, and bad_alloc. They send as much as the system takes, and keep the rest for
    // work().

    void subscribe(const std::string& topic);

    /// Returns the message's number, as onAcknowledged() gets it; nothing if the server refuses messages of
    /// this size.
    std::optional<int> publish(const Message& message);

    /// Says goodbye: the server then publishes no will.
    void disconnect();

private:
    struct Search; // what the thread shares with this object
    struct Destroyer
    {
        void operator()(mosquitto* client) const { mosquitto_destroy(client); }
    };

    void prepare(const ServerOptions& options, const std::optional<Message>& will);
    void secure(const ServerOptions& options);
    void useEngine(const std::string& name);
    void authenticate(const ServerOptions& options);
    void setCallbacks();
    void startSearch(const ServerOptions& options, const std::string& host);
    void finishSearch();
    void readAll();
    void check(int result);

    IMqttReceiver& mReceiver;
    std::shared_ptr<Search> mSearch;
    bool mIsSearching = true;
    bool mHasWritten = false; // the connection is made
    std::string mRefusal;     // the server's reason for not accepting, or for closing
};

#endif
