#ifndef TESTS_BROKER_ATTACKS_ATTACK_H
#define TESTS_BROKER_ATTACKS_ATTACK_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Wait.h"
#include "tests/support/ZmtpPeer.h"

/// Peers that send their messages as fast as the broker takes them, and read nothing. A closed peer
/// reconnects.
class Attack
{
public:
    struct Peers
    {
        int count;
        uint16_t port;
        std::string socketType;
        std::vector<std::string> messages; ///< as bytes of the wire
        bool isEndless;                    ///< repeats them for ever, instead of once on each connection
    };

    /// Starts the attack.
    explicit Attack(const std::vector<Peers>& peers);
    /// Ends the attack.
    ~Attack();

    Attack(const Attack&) = delete;
    Attack& operator=(const Attack&) = delete;

    /// Waits until each peer has sent all its messages once, or was closed for them, and all peers together
    /// have sent this many bytes. Returns false at the deadline, or if they cannot connect.
    bool isUnderWay(std::size_t bytes = 0);

private:
    class Peer;

    void run();
    void step();

    std::vector<Peers> mKinds;
    std::vector<std::unique_ptr<Peer>> mPeers;
    std::atomic<std::size_t> mSent{0};
    std::atomic<std::size_t> mDone{0};
    std::atomic<bool> mIsEnding{false};
    std::thread mThread;
};

#endif
