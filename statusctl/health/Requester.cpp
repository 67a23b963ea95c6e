#include "statusctl/health/Requester.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

#include "brokerlink/Messages.h"
#include "protocol/Words.h"
#include "statusctl/base/Failure.h"
#include "statusctl/device/Device.h"
#include "statusctl/text/Duration.h"
#include "statusctl/text/Json.h"

Requester::Requester(const Settings& settings) : mSettings(settings), mSocket(mContext, zmq::socket_type::req)
{
    constexpr std::chrono::milliseconds most{std::numeric_limits<int>::max()};
    Device::checkReachable();
    mSocket.set(zmq::sockopt::linger, 0);
    mSocket.set(zmq::sockopt::rcvtimeo, static_cast<int>(std::min(settings.requestTimeout(), most).count()));
    mSocket.connect("tcp://127.0.0.1:5555");
}

std::string Requester::ask(const std::string& request)
{
    mSocket.send(zmq::buffer(request));
    std::optional<std::string> reply = Messages::receive(mSocket);
    if (!reply)
        throw Failure(ExitCode::TimedOut,
                      "no answer from the broker within " + Duration::write(mSettings.requestTimeout()));
    return *std::move(reply);
}

void Answer::failToRead(const std::string& reply)
{
    constexpr std::size_t enough = 200;
    throw Failure(ExitCode::BadReply, "bad reply from the broker: " + reply.substr(0, enough));
}

Json::Value Answer::objectIn(const std::string& reply)
{
    std::optional<Json::Value> answer = JsonText::readObject(reply);
    if (!answer)
        failToRead(reply);
    return std::move(*answer);
}

std::string Answer::textIn(const Json::Value& object, const char* name)
{
    const Json::Value& member = object[name];
    return member.isString() ? member.asString() : std::string();
}

uint64_t Answer::numberIn(const Json::Value& object, const char* name)
{
    const Json::Value& member = object[name];
    return member.isUInt64() ? member.asUInt64() : 0;
}

BrokerProtocol::Poster Answer::posterIn(const Json::Value& object)
{
    namespace Member = BrokerProtocol::ClientMember;
    BrokerProtocol::Poster poster;
    if (!object.isObject())
        return poster;
    poster.user = textIn(object, Member::user);
    if (object[Member::uid].isUInt())
        poster.uid = object[Member::uid].asUInt();
    poster.service = textIn(object, Member::service);
    poster.program = textIn(object, Member::program);
    poster.pid = static_cast<uint32_t>(numberIn(object, Member::pid));
    return poster;
}
