#ifndef BRIDGE_DISCOVERY_H
#define BRIDGE_DISCOVERY_H

#include <map>
#include <string>

#include "bridge/BridgeOptions.h"
#include "mqttlink/Topics.h"

/// Descriptions of keys for Home Assistant, which then shows them without further configuration.
namespace Discovery
{

/// The retained messages: topics, and what they describe.
/// @param version of the bridge
std::map<std::string, std::string> messagesOf(const BridgeOptions& options, const Topics& topics,
                                              const std::string& version);

} // namespace Discovery

#endif
