#ifndef TESTS_BROKER_PEER_ENDS_H
#define TESTS_BROKER_PEER_ENDS_H

#include <functional>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "daemon/Descriptor.h"
#include "tests/support/Loopback.h"
#include "tests/support/Wait.h"

inline uint64_t inodeOf(const Descriptor& socket)
{
    struct stat status
    {
    };
    EXPECT_EQ(fstat(socket.number(), &status), 0);
    return status.st_ino;
}

/// A port of 127.0.0.1 that the kernel chooses, and the connection that arrives at it.
class Accepting
{
public:
    Accepting() : mListener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        address = loopback(0);
        socklen_t size = sizeof(address);
        EXPECT_EQ(bind(mListener.number(), place(address), size), 0);
        EXPECT_EQ(listen(mListener.number(), 1), 0);
        EXPECT_EQ(getsockname(mListener.number(), place(address), &size), 0);
    }

    int listener() const { return mListener.number(); }

    void accept()
    {
        socklen_t size = sizeof(peerAddress);
        own = Descriptor(accept4(mListener.number(), place(peerAddress), &size, SOCK_CLOEXEC));
        EXPECT_TRUE(own.isOpen());
    }

    static sockaddr* place(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

    sockaddr_in address{};     ///< of this end
    sockaddr_in peerAddress{}; ///< of the other end
    Descriptor own;

private:
    Descriptor mListener;
};

/// Two ends of a connection, both in this process.
class Ends : public Accepting
{
public:
    /// @param port the peer's port, or 0
    void connect(uint16_t port = 0)
    {
        peer = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in from = loopback(port);
        ASSERT_EQ(bind(peer.number(), place(from), sizeof(from)), 0);
        connectPeer();
    }

    /// Connects the socket `peer`.
    void connectPeer()
    {
        ASSERT_EQ(::connect(peer.number(), place(address), sizeof(address)), 0);
        accept();
    }

    /// Closes the peer with a reset.
    void resetPeer()
    {
        const linger none{1, 0};
        ASSERT_EQ(setsockopt(peer.number(), SOL_SOCKET, SO_LINGER, &none, sizeof(none)), 0);
        peer.close();
    }

    Descriptor peer;
};

/// A process that connects, and holds the connection until this object is destroyed.
class ConnectedProcess
{
public:
    /// @param prepare runs in the process before it has a socket; returns false if this machine does not
    /// allow it
    ConnectedProcess(Accepting& to, const std::function<bool()>& prepare)
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        Descriptor mine(ends[0]);
        Descriptor its(ends[1]);
        pid = fork();
        if (pid == 0)
        {
            mine.close();
            run(to, prepare, its.number());
        }
        its.close();
        mHeld = std::move(mine);
        pollfd polled[] = {{to.listener(), POLLIN, 0}, {mHeld.number(), POLLIN, 0}};
        poll(polled, 2, static_cast<int>(std::chrono::milliseconds(testDeadline).count()));
        isConnected = polled[0].revents != 0;
        if (isConnected)
            to.accept();
    }

    ~ConnectedProcess()
    {
        mHeld.close();
        waitpid(pid, nullptr, 0);
    }

    ConnectedProcess(const ConnectedProcess&) = delete;
    ConnectedProcess& operator=(const ConnectedProcess&) = delete;

    pid_t pid = 0;
    bool isConnected = false;

private:
    [[noreturn]] static void run(Accepting& to, const std::function<bool()>& prepare, int held)
    {
        char ignored = 0;
        const bool isPrepared = prepare();
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int peer = isPrepared ? socket(AF_INET, SOCK_STREAM, 0) : -1;
        if (peer != -1 && connect(peer, Accepting::place(to.address), sizeof(to.address)) == 0)
            while (read(held, &ignored, 1) < 0) // until the other end is closed
                continue;
        _exit(0);
    }

    Descriptor mHeld;
};

#endif
