#ifndef TESTS_PROTOCOL_JSONCPPREADING_H
#define TESTS_PROTOCOL_JSONCPPREADING_H

#include <algorithm>
#include <json/json.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "protocol/BrokerDocuments.h"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // Json::Reader: the wire format is its

/// The meaning of a post or request as JsonCpp reads it. Earlier brokers read with JsonCpp.
struct Meaning
{
    std::string name; ///< name of the operation
    std::string text;
    std::map<std::string, std::string> members;
    std::vector<std::string> texts;
    uint32_t number = 0;

    bool operator==(const Meaning& other) const
    {
        return name == other.name && text == other.text && members == other.members && texts == other.texts &&
               number == other.number;
    }

    static Meaning of(const BrokerProtocol::Command& command)
    {
        Meaning meaning;
        meaning.name = BrokerProtocol::nameOf(command.operation);
        meaning.text = command.text;
        for (const BrokerProtocol::Member& member : command.members)
            meaning.members.emplace(member.name, member.value);
        meaning.texts.assign(command.texts.begin(), command.texts.end());
        meaning.number = command.number;
        return meaning;
    }
};

namespace JsonCppReading
{

using ReadPayload = bool (*)(const Json::Value&, Meaning&);
using Forms = std::map<std::string, ReadPayload>;

inline bool isString(const Json::Value& value)
{
    return value.isString();
}

inline bool isNumber(const Json::Value& value)
{
    return value.isUInt() && value.type() != Json::realValue;
}

inline bool readText(const Json::Value& payload, Meaning& meaning)
{
    if (payload.isString())
        meaning.text = payload.asString();
    return payload.isString();
}

inline bool readTexts(const Json::Value& payload, Meaning& meaning)
{
    if (!payload.isArray() || !std::all_of(payload.begin(), payload.end(), isString))
        return false;
    for (const Json::Value& element : payload)
        meaning.texts.push_back(element.asString());
    return true;
}

inline bool readMembers(const Json::Value& payload, Meaning& meaning)
{
    if (!payload.isObject() || !std::all_of(payload.begin(), payload.end(), isString))
        return false;
    for (auto member = payload.begin(); member != payload.end(); ++member)
        meaning.members[member.name()] = member->asString();
    return true;
}

inline bool readNumber(const Json::Value& payload, Meaning& meaning)
{
    if (isNumber(payload))
        meaning.number = payload.asUInt();
    return isNumber(payload);
}

inline bool readNamedNumber(const Json::Value& payload, Meaning& meaning)
{
    if (!payload.isObject() || payload.size() != 1 || !isNumber(*payload.begin()))
        return false;
    meaning.text = payload.begin().name();
    meaning.number = payload.begin()->asUInt();
    return true;
}

inline const Forms posts{{BrokerProtocol::Key::updateSystemTime, readNumber},
                         {BrokerProtocol::Key::postStatus, readMembers},
                         {BrokerProtocol::Key::resetStatus, readTexts},
                         {BrokerProtocol::Key::postEvent, readMembers},
                         {BrokerProtocol::Key::startTimer, readText},
                         {BrokerProtocol::Key::stopTimer, readText},
                         {BrokerProtocol::Key::resetTimer, readText},
                         {BrokerProtocol::Key::restartTimer, readText},
                         {BrokerProtocol::Key::setCounterValue, readNamedNumber}};

inline const Forms requests{{BrokerProtocol::Key::getClientInfo, readText},
                            {BrokerProtocol::Key::getClientInfoValue, readText},
                            {BrokerProtocol::Key::getClientInfoValues, readTexts},
                            {BrokerProtocol::Key::getTimerElapsed, readText},
                            {BrokerProtocol::Key::getTimerLastStarted, readText},
                            {BrokerProtocol::Key::getCounterValue, readText},
                            {BrokerProtocol::Key::incrementCounter, readText},
                            {BrokerProtocol::Key::getBrokerStatistics, readText},
                            {BrokerProtocol::Key::getBrokerClients, readText},
                            {BrokerProtocol::Key::getPolicyDecision, readTexts},
                            {BrokerProtocol::Key::getStatusDetails, readTexts},
                            {BrokerProtocol::Key::forgetStatus, readTexts},
                            {BrokerProtocol::Key::forgetTimers, readTexts},
                            {BrokerProtocol::Key::forgetCounters, readTexts},
                            {BrokerProtocol::Key::getTimers, readText},
                            {BrokerProtocol::Key::getCounters, readText},
                            {BrokerProtocol::Key::setTimer, readTexts}};

inline std::optional<Meaning> read(const std::string& document, const Forms& forms)
{
    Json::Value root;
    try
    {
        if (!Json::Reader().parse(document, root, false) || !root.isObject() || root.size() != 1)
            return std::nullopt;
    }
    catch (const Json::Exception&)
    {
        return std::nullopt; // nested too deeply
    }
    Meaning meaning;
    meaning.name = root.begin().name();
    const auto form = forms.find(meaning.name);
    if (form == forms.end() || !form->second(*root.begin(), meaning))
        return std::nullopt;
    return meaning;
}

} // namespace JsonCppReading

#endif
