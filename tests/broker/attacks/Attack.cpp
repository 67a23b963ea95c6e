#include "tests/broker/attacks/Attack.h"

#include <poll.h>
#include <stdexcept>
#include <string_view>

// Makes one connection after the other.
class Attack::Peer
{
public:
    explicit Peer(const Peers& kind) : mKind(kind) {}

    pollfd item() const
    {
        const bool hasMore = mKind.isEndless || mMessage < mKind.messages.size();
        return {mConnection->descriptor(), static_cast<short>(hasMore ? POLLOUT | POLLRDHUP : POLLRDHUP), 0};
    }

    // Does not wait for the broker's part of the handshake, which the protocol allows.
    void connect()
    {
        constexpr int smallBuffer = 4096;
        mConnection = std::make_unique<ZmtpPeer>(mKind.port, smallBuffer);
        mOpening = ZmtpPeer::greeting() + ZmtpPeer::ready(mKind.socketType);
        mMessage = 0;
        mRest = mOpening;
    }

    /// Returns how many bytes it has sent.
    std::size_t act(short events)
    {
        if ((events & (POLLRDHUP | POLLHUP | POLLERR)) != 0)
        {
            mIsDone = true;
            connect();
        }
        if ((events & POLLOUT) == 0)
            return 0;
        if (mRest.empty())
            mRest = mKind.messages[mMessage++ % mKind.messages.size()];
        const std::size_t sent = mConnection->writeSome(mRest);
        mRest.remove_prefix(sent);
        mIsDone = mIsDone || (mRest.empty() && mMessage >= mKind.messages.size());
        return sent;
    }

    bool isDone() const { return mIsDone; }

private:
    const Peers& mKind;
    std::unique_ptr<ZmtpPeer> mConnection;
    std::string mOpening;
    std::size_t mMessage = 0; // the next message
    std::string_view mRest;   // of the message that is being sent
    bool mIsDone = false;
};

Attack::Attack(const std::vector<Peers>& peers) : mKinds(peers)
{
    for (const Peers& kind : mKinds)
    {
        for (int count = 0; count < kind.count; ++count)
            mPeers.push_back(std::make_unique<Peer>(kind));
    }
    mThread = std::thread([this] { run(); });
}

Attack::~Attack()
{
    mIsEnding = true;
    mThread.join();
}

bool Attack::isUnderWay(std::size_t bytes)
{
    return eventually([&] { return mDone == mPeers.size() && mSent >= bytes; });
}

void Attack::run()
{
    try
    {
        for (const auto& peer : mPeers)
            peer->connect();
        while (!mIsEnding)
            step();
    }
    catch (const std::runtime_error&)
    {
        // the broker has ended, which the tests notice
    }
}

void Attack::step()
{
    constexpr int pause = 10;
    std::vector<pollfd> items;
    for (const auto& peer : mPeers)
        items.push_back(peer->item());
    poll(items.data(), items.size(), pause);
    std::size_t done = 0;
    for (std::size_t index = 0; index < items.size(); ++index)
    {
        mSent += mPeers[index]->act(items[index].revents);
        if (mPeers[index]->isDone())
            ++done;
    }
    mDone = done;
}
