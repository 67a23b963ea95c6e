#ifndef STATUSCTL_HEALTH_REQUESTER_H
#define STATUSCTL_HEALTH_REQUESTER_H

#include <cstdint>
#include <json/value.h>
#include <string>
#include <zmq.hpp>

#include "protocol/Poster.h"
#include "statusctl/base/Settings.h"

/// Asks the broker on a connection of its own, for what the library has no operation for.
class Requester
{
public:
    /// @param settings must outlive it
    /// @throws Failure if no broker listens
    explicit Requester(const Settings& settings);

    /// @throws Failure if no answer comes in time
    std::string ask(const std::string& request);

private:
    const Settings& mSettings;
    zmq::context_t mContext;
    zmq::socket_t mSocket;
};

/// How an answer of the broker is read.
namespace Answer
{

[[noreturn]] void failToRead(const std::string& reply);

/// The object that an answer is.
/// @throws Failure if it is none
Json::Value objectIn(const std::string& reply);

// ---- Members of what the broker tells. It may be of another version: what is missing is unknown.

std::string textIn(const Json::Value& object, const char* name);
uint64_t numberIn(const Json::Value& object, const char* name);
BrokerProtocol::Poster posterIn(const Json::Value& object);

} // namespace Answer

#endif
