#include "tests/bridge/CuttingProxy.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace
{

sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

} // namespace

CuttingProxy::CuttingProxy(int target)
    : mTarget(target), mListener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof(address);
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    if (bind(mListener.number(), plain, size) != 0 || listen(mListener.number(), SOMAXCONN) != 0 ||
        getsockname(mListener.number(), plain, &size) != 0)
        throw std::runtime_error("the proxy cannot listen");
    mPort = ntohs(address.sin_port);
    mThread = std::thread([this] { run(); });
}

CuttingProxy::~CuttingProxy()
{
    mIsEnding = true;
    wake();
    mThread.join();
}

void CuttingProxy::stall()
{
    mIsStalled = true;
    wake();
}

void CuttingProxy::pass()
{
    mIsStalled = false;
    mDelay = std::chrono::milliseconds(0);
    wake();
}

void CuttingProxy::delay(std::chrono::milliseconds time)
{
    mDelay = time;
}

void CuttingProxy::cutAfter(std::size_t bytes)
{
    mBudget = static_cast<long>(bytes);
}

void CuttingProxy::cutAll()
{
    mIsCuttingAll = true;
    wake();
}

void CuttingProxy::wake() const
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(mWake.number(), &one, sizeof(one));
}

void CuttingProxy::run()
{
    while (!mIsEnding)
    {
        std::vector<pollfd> items = interests();
        poll(items.data(), items.size(), -1);
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t taken = read(mWake.number(), &count, sizeof(count));
        if (mIsCuttingAll.exchange(false))
        {
            mCuts += mPairs.size();
            mPairs.clear();
            continue;
        }
        if (mIsStalled)
            continue;
        std::this_thread::sleep_for(mDelay.load()); // plays a slow network
        forwardAll(items);
        if (items[1].revents != 0)
            accept();
    }
}

// The pairs follow in their order, each with two descriptors.
std::vector<pollfd> CuttingProxy::interests() const
{
    const auto events = static_cast<short>(mIsStalled ? 0 : POLLIN);
    std::vector<pollfd> items{{mWake.number(), POLLIN, 0}, {mIsStalled ? -1 : mListener.number(), POLLIN, 0}};
    for (const Pair& pair : mPairs)
    {
        items.push_back({mIsStalled ? -1 : pair.client.number(), events, 0});
        items.push_back({mIsStalled ? -1 : pair.server.number(), events, 0});
    }
    return items;
}

void CuttingProxy::accept()
{
    Pair pair{Descriptor(accept4(mListener.number(), nullptr, nullptr, SOCK_CLOEXEC)),
              Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))};
    const sockaddr_in address = loopback(mTarget);
    if (pair.client.isOpen() &&
        connect(pair.server.number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
        mPairs.push_back(std::move(pair));
}

void CuttingProxy::forwardAll(const std::vector<pollfd>& items)
{
    std::size_t at = 2;
    for (auto pair = mPairs.begin(); pair != mPairs.end(); at += 2)
    {
        const bool isAlive = (items[at].revents == 0 || forward(pair->client, pair->server)) &&
                             (items[at + 1].revents == 0 || forward(pair->server, pair->client));
        pair = isAlive ? std::next(pair) : mPairs.erase(pair);
    }
}

// Returns false at the end of the connection.
bool CuttingProxy::forward(const Descriptor& from, const Descriptor& to)
{
    std::array<char, 4096> bytes{};
    const ssize_t size = recv(from.number(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size <= 0)
        return false;
    long budget = mBudget;
    const long passed = budget < 0 ? size : std::min<long>(size, budget);
    const bool isSent =
        send(to.number(), bytes.data(), static_cast<std::size_t>(passed), MSG_NOSIGNAL) == passed;
    if (budget < 0)
        return isSent;
    const bool isLast = passed == budget;
    mBudget.compare_exchange_strong(budget, isLast ? -1 : budget - passed); // a new one may have been set
    if (!isLast)
        return isSent;
    ++mCuts;
    return false;
}
