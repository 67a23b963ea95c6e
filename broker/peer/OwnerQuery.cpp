#include "broker/peer/OwnerQuery.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "daemon/Descriptor.h"

namespace
{

// A connection between two sockets of this process.
class OwnConnection
{
public:
    OwnConnection() : mListener(make()), mPeer(make())
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        mIsThere = mListener.isOpen() && mPeer.isOpen() &&
                   bind(mListener.number(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
                   listen(mListener.number(), 1) == 0 && addressOf(mListener, mPair.own) && connect() &&
                   addressOf(mPeer, mPair.peer);
    }

    bool isThere() const { return mIsThere; }
    const SocketPair& pair() const { return mPair; }

    uint64_t inode() const
    {
        struct stat status
        {
        };
        return fstat(mPeer.number(), &status) == 0 ? status.st_ino : 0;
    }

private:
    static Descriptor make()
    {
        return Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    }

    static bool addressOf(const Descriptor& socket, sockaddr_in& address)
    {
        socklen_t size = sizeof(address);
        return getsockname(socket.number(), reinterpret_cast<sockaddr*>(&address), &size) == 0;
    }

    // Succeeds at once, unless a packet filter drops the packets.
    bool connect()
    {
        constexpr int enough = 100; // milliseconds
        (void)::connect(mPeer.number(), reinterpret_cast<sockaddr*>(&mPair.own),
                        sizeof(mPair.own)); // poll() decides
        pollfd polled{mPeer.number(), POLLOUT, 0};
        return poll(&polled, 1, enough) == 1 && (polled.revents & (POLLERR | POLLHUP)) == 0;
    }

    Descriptor mListener;
    Descriptor mPeer;
    SocketPair mPair{};
    bool mIsThere;
};

} // namespace

OwnerQuery::OwnerQuery(Sources sources)
    : mUsers(sources.proc), mTable(sources.proc + "/net"), mSockDiag(std::move(sources.sockDiag)),
      mRoad(firstTrue())
{
}

OwnerQuery::Road OwnerQuery::firstTrue()
{
    const OwnConnection connection;
    if (!connection.isThere() || connection.inode() == 0)
        return Road::None;
    for (const Road road : {Road::SockDiag, Road::ConnectionTable})
    {
        const Owner owner = askAlong(road, connection.pair());
        if (owner.inode() != connection.inode())
            continue;
        mTellsControlGroups = owner.cgroup().has_value();
        return road;
    }
    return Road::None;
}

const char* OwnerQuery::name(Road road)
{
    switch (road)
    {
    case Road::SockDiag:
        return "sock_diag";
    case Road::ConnectionTable:
        return "/proc/net/tcp";
    case Road::None:
        break;
    }
    return "none";
}

Owner OwnerQuery::ask(const sockaddr_in& peer, const sockaddr_in& own)
{
    const Owner owner = askAlong(mRoad, {peer, own});
    return owner.isKnown() && mUsers.isOutside(*owner.uid())
               ? owner.withoutUser(Owner::Knowledge::OutsideUserNamespace)
               : owner;
}

Owner OwnerQuery::askAlong(Road road, const SocketPair& pair)
{
    switch (road)
    {
    case Road::SockDiag:
        return mSockDiag.ask(pair);
    case Road::ConnectionTable:
        return mTable.ask(pair);
    case Road::None:
        break;
    }
    return Owner::unknown(Owner::Knowledge::NoMeans);
}
