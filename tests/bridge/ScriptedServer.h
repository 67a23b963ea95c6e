#ifndef TESTS_BRIDGE_SCRIPTEDSERVER_H
#define TESTS_BRIDGE_SCRIPTEDSERVER_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "daemon/Descriptor.h"
#include "tests/support/Wait.h"

/// An MQTT 5 server that does as a test says, and records what a client sends. It has one connection at a
/// time. It works while the test waits.
class ScriptedServer
{
public:
    enum class Kind : uint8_t
    {
        Connect = 1,
        Publish = 3,
        Subscribe = 8,
        Ping = 12,
        Disconnect = 14,
    };

    struct Packet
    {
        Kind kind;
        std::string topic;   ///< of a Publish, or the last one of a Subscribe
        std::string payload; ///< of a Publish
        std::string bytes;   ///< the whole content
        int number = 0;
    };

    /// @param receiveMaximum how many messages may be under way; 0: says nothing
    explicit ScriptedServer(unsigned receiveMaximum = 0);

    int port() const { return mPort; }

    /// Waits until the condition holds.
    template <typename Condition>
    bool waitFor(Condition condition, std::chrono::milliseconds deadline = testDeadline)
    {
        return eventually([&] { return condition() || (work(), false); }, deadline);
    }

    /// Ends the connection.
    void kick();

    bool kicksAfterAccepting = false; ///< the connection is accepted, and ended
    bool takesPackets = true;         ///< otherwise the bytes stay unread()
    bool answersSubscriptions = true;
    bool acknowledges = true; ///< otherwise messages stay under way

    /// Acknowledges what is under way.
    void acknowledgeAll();

    const std::vector<Packet>& packets() const { return mPackets; }
    std::vector<Packet> packetsOf(Kind kind) const;
    /// Bytes that are not taken as a packet yet.
    const std::string& unread() const { return mBytes; }
    std::size_t connections() const { return mConnections; }
    std::size_t underWay() const { return mUnderWay.size(); }
    std::size_t mostUnderWay() const { return mMostUnderWay; }

private:
    void work();
    void takeBytes();
    bool takePacket();
    void take(Packet packet);
    void send(const std::string& bytes);

    const unsigned mReceiveMaximum;
    Descriptor mListener;
    Descriptor mConnection;
    int mPort = 0;
    std::string mBytes;
    std::vector<Packet> mPackets;
    std::deque<int> mUnderWay;
    std::size_t mMostUnderWay = 0;
    std::size_t mConnections = 0;
};

#endif
