#ifndef MQTTLINK_SERVERNAME_H
#define MQTTLINK_SERVERNAME_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The name of the server, or of a row of servers: "mqtt{0..127}.example.org" stands for 128 names. Each
/// device picks one of them by its own name, always the same.
namespace ServerName
{

/// Returns the error in a name; empty if there is none.
std::string errorIn(const std::string& name);

/// @param name a valid name
std::string pick(const std::string& name, const std::string& device);

/// All names that a name stands for.
/// @param name a valid name
std::vector<std::string> all(const std::string& name);

} // namespace ServerName

#endif
