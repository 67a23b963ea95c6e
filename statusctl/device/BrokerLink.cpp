#include "statusctl/device/BrokerLink.h"

#include <cerrno>
#include <chrono>
#include <utility>

#include "brokerlink/LinkMonitor.h"
#include "brokerlink/Messages.h"
#include "protocol/ClientDocuments.h"
#include "statusctl/base/Failure.h"
#include "statusctl/text/Duration.h"

namespace
{

constexpr const char* requests = "tcp://127.0.0.1:5555";

// Turn 0 is before the first connection, so odd turns are connected.
bool isUp(unsigned turn)
{
    return turn % 2 == 1;
}

} // namespace

BrokerLink::BrokerLink(std::function<void(bool)> tell) : mTell(std::move(tell)), mThread([this] { watch(); })
{
}

BrokerLink::~BrokerLink()
{
    end();
}

void BrokerLink::end()
{
    mContext.shutdown(); // ends the receives of both threads
    if (mThread.joinable())
        mThread.join();
}

void BrokerLink::waitUntilUp()
{
    constexpr std::chrono::seconds enough{5};
    mFirst.get_future().wait_for(enough);
}

std::optional<StatusMap> BrokerLink::values(std::optional<std::chrono::milliseconds> limit)
{
    const unsigned turn = mTurn;
    if (!isUp(turn))
        return std::nullopt; // the turn changes only when the broker is back
    const auto isWanted = [this, limit, turn, begin = std::chrono::steady_clock::now()]
    {
        if (limit && std::chrono::steady_clock::now() - begin >= *limit)
            throw Failure(ExitCode::TimedOut, "no answer from the broker within " + Duration::write(*limit));
        return mTurn == turn;
    };
    std::optional<std::string> reply;
    do
        reply = ask(BrokerProtocol::writeGetClientInfo(), isWanted);
    while (reply && reply->empty()); // empty: sent to a silent connection, so ask again
    if (!reply)
        return std::nullopt;
    std::optional<StatusMap> values = BrokerProtocol::readMapReply(*reply);
    if (!values)
        throw Failure(ExitCode::BadReply, "bad reply from the broker: " + reply->substr(0, 200));
    return values;
}

// Uses a connection of its own: on the link's, an empty answer of the broker could arrive first.
std::optional<std::string> BrokerLink::ask(const std::string& request, const std::function<bool()>& isWanted)
{
    constexpr int pace = 100;
    try
    {
        zmq::socket_t socket(mContext, zmq::socket_type::req);
        socket.set(zmq::sockopt::linger, 0);
        socket.set(zmq::sockopt::rcvtimeo, pace);
        socket.connect(requests);
        socket.send(zmq::buffer(request));
        while (isWanted())
        {
            if (std::optional<std::string> reply = Messages::receive(socket))
                return reply;
        }
    }
    catch (const zmq::error_t& error)
    {
        if (error.num() != ETERM)
            throw;
    }
    return std::nullopt;
}

// ----------------------------------------------------------------------------------------- the link's thread

void BrokerLink::watch()
{
    try
    {
        zmq::socket_t link(mContext, zmq::socket_type::req);
        link.set(zmq::sockopt::linger, 0);
        LinkMonitor monitor(mContext, link, "link");
        link.connect(requests);
        for (;;)
            take(monitor.receive());
    }
    catch (const zmq::error_t&) // thrown after end(). Without sockets there is nothing to report either
    {
    }
}

void BrokerLink::take(bool hasCome)
{
    if (hasCome == isUp(mTurn)) // another attempt of the same connection
        return;
    if (++mTurn == 1)
        mFirst.set_value();
    mTell(hasCome);
}
