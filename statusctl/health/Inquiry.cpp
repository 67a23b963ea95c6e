#include "statusctl/health/Inquiry.h"

#include <algorithm>
#include <limits>
#include <string>
#include <zmq.hpp>

#include "statusctl/base/Failure.h"
#include "statusctl/device/Device.h"
#include "statusctl/text/Duration.h"

namespace
{

std::string ask(const std::string& request, const Settings& settings)
{
    constexpr std::chrono::milliseconds most{std::numeric_limits<int>::max()};
    const auto limit = static_cast<int>(std::min(settings.requestTimeout(), most).count());
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::req);
    socket.set(zmq::sockopt::linger, 0);
    socket.set(zmq::sockopt::rcvtimeo, limit);
    socket.connect("tcp://127.0.0.1:5555");
    socket.send(zmq::buffer(request));
    std::string reply;
    zmq::message_t frame;
    do
    {
        if (!socket.recv(frame))
            throw Failure(ExitCode::TimedOut,
                          "no answer from the broker within " + Duration::write(settings.requestTimeout()));
        reply.append(frame.data<char>(), frame.size());
    } while (frame.more());
    return reply;
}

} // namespace

BrokerProtocol::Statistics Inquiry::statistics(const Settings& settings)
{
    Device::checkReachable();
    const std::string reply = ask(BrokerProtocol::writeGetBrokerStatistics(), settings);
    const auto statistics = BrokerProtocol::readStatisticsReply(reply);
    if (!statistics)
        throw Failure(ExitCode::BadReply, "bad reply from the broker: " + reply.substr(0, 200));
    if (statistics->empty())
        throw Failure(ExitCode::BadReply, "this broker keeps no statistics");
    return *statistics;
}

std::string Inquiry::versionIn(const BrokerProtocol::Statistics& statistics)
{
    std::string version;
    for (const char* part : {"version.major", "version.minor", "version.patch"})
    {
        const auto number = statistics.find(part);
        version +=
            (version.empty() ? "" : ".") + std::to_string(number == statistics.end() ? 0 : number->second);
    }
    return version;
}
