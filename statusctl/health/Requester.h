#ifndef STATUSCTL_HEALTH_REQUESTER_H
#define STATUSCTL_HEALTH_REQUESTER_H

#include <cstdint>
#include <json/value.h>
#include <string>
#include <zmq.hpp>

#include "protocol/Poster.h"
#include "statusctl/base/Settings.h"

/// Sends the broker requests that the library has no operation for, on a connection of its own.
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

/// Reads an answer of the broker.
namespace Answer
{

[[noreturn]] void failToRead(const std::string& reply);

/// The object in an answer.
/// @throws Failure if the answer is not an object
Json::Value objectIn(const std::string& reply);

// ---- Members of an answer. The broker may be of another version: a missing member is unknown.

std::string textIn(const Json::Value& object, const char* name);
uint64_t numberIn(const Json::Value& object, const char* name);
BrokerProtocol::Poster posterIn(const Json::Value& object);

} // namespace Answer

#endif
