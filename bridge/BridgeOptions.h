#ifndef BRIDGE_BRIDGEOPTIONS_H
#define BRIDGE_BRIDGEOPTIONS_H

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "bridge/NameRules.h"
#include "mqttlink/ServerOptions.h"

/// A key that Home Assistant shows.
struct DiscoveryRule
{
    std::string key;
    std::string unit;        ///< may be empty
    std::string deviceClass; ///< may be empty
};

/// The bridge's configuration.
struct BridgeOptions : ServerOptions
{
    enum class Layout
    {
        Keys,     ///< a retained message for each key
        Document, ///< one retained message with all keys, and messages with changes
    };

    std::string device;
    std::chrono::seconds longestPause{300};

    Layout layout = Layout::Keys;
    NameRules keys;
    NameRules events;
    std::vector<IntervalRule> intervals;
    std::vector<DiscoveryRule> discovery;
    std::string discoveryPrefix = "homeassistant";
    std::vector<Glob> desiredKeys;           ///< keys that the server may set; none: off
    std::vector<Glob> commands;              ///< events that the server may cause; none: off
    std::chrono::milliseconds batch{1000};   ///< in the layout Document
    std::chrono::seconds rebirthPause{10};   ///< between two births that the server asks for
    std::chrono::seconds onlineExpiry{3600}; ///< 0: none

    std::string file; ///< empty: nothing is kept
    std::size_t mostEvents = 10000;
    std::size_t mostEventBytes = std::size_t{4} * 1024 * 1024;
    unsigned eventRate = 50; ///< events per second
    int logLevel = 5;

    const std::string& effectiveClientId() const { return clientId.empty() ? device : clientId; }

    /// Reads a configuration in the format of ConfigText. If it names no file, the environment variable
    /// STATUSBRIDGE_FILE does. Throws ConfigError.
    static BridgeOptions parse(const std::string& text, const std::string& fileName);
    static BridgeOptions readFile(const std::string& fileName);
};

#endif
