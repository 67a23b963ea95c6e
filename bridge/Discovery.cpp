#include "bridge/Discovery.h"

#include <json/json.h>

namespace
{

// Letters, digits, _ and - are all that an identifier may have. Different names stay different.
std::string identifierOf(const std::string& name)
{
    constexpr std::string_view digits = "0123456789abcdef";
    constexpr unsigned base = 16;
    std::string identifier;
    for (const char letter : name)
    {
        const auto byte = static_cast<unsigned char>(letter);
        const bool isPlain = (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
                             (letter >= '0' && letter <= '9') || letter == '-';
        if (isPlain)
            identifier += letter;
        else
            (identifier += '_').append({digits[byte / base], digits[byte % base]});
    }
    return identifier;
}

Json::Value deviceOf(const BridgeOptions& options, const std::string& identifier, const std::string& version)
{
    Json::Value device(Json::objectValue);
    device["identifiers"].append(identifier);
    device["name"] = options.device;
    device["sw_version"] = version;
    return device;
}

} // namespace

std::map<std::string, std::string> Discovery::messagesOf(const BridgeOptions& options, const Topics& topics,
                                                         const std::string& version)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    const std::string device = identifierOf(options.device);
    std::map<std::string, std::string> messages;
    for (const DiscoveryRule& rule : options.discovery)
    {
        const std::string key = identifierOf(rule.key);
        Json::Value sensor(Json::objectValue);
        sensor["name"] = rule.key;
        sensor["unique_id"] = identifierOf(options.prefix) + "_" + device + "_" + key;
        sensor["state_topic"] = topics.status(rule.key);
        sensor["availability_topic"] = topics.online();
        sensor["availability_template"] = "{{ 'online' if value_json.online else 'offline' }}";
        sensor["device"] = deviceOf(options, identifierOf(options.prefix) + "_" + device, version);
        if (!rule.unit.empty())
            sensor["unit_of_measurement"] = rule.unit;
        if (!rule.deviceClass.empty())
            sensor["device_class"] = rule.deviceClass;
        messages[options.discoveryPrefix + "/sensor/" + device + "/" + key + "/config"] =
            Json::writeString(builder, sensor);
    }
    return messages;
}
