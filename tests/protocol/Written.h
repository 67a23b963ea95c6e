#ifndef TESTS_PROTOCOL_WRITTEN_H
#define TESTS_PROTOCOL_WRITTEN_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "protocol/BrokerDocuments.h"

/// Returns what one of the broker's writers appends, as a text.
template <class... Parameters, class... Arguments>
std::string written(void (*append)(std::string&, Parameters...), Arguments&&... arguments)
{
    std::string text;
    append(text, std::forward<Arguments>(arguments)...);
    return text;
}

/// The texts of the members stay in the map.
inline std::vector<BrokerProtocol::Member> membersIn(const std::map<std::string, std::string>& map)
{
    std::vector<BrokerProtocol::Member> members;
    for (const auto& [name, value] : map)
        members.push_back({name, value});
    return members;
}

/// An object of texts, like the answers with several values.
inline std::string writtenObject(const std::map<std::string, std::string>& map)
{
    std::string text = "{";
    for (const BrokerProtocol::Member& member : membersIn(map))
        BrokerProtocol::appendMember(text, member);
    return text + "}";
}

#endif
