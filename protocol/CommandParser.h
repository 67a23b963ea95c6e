#ifndef PROTOCOL_COMMANDPARSER_H
#define PROTOCOL_COMMANDPARSER_H

#include <string_view>
#include <vector>

#include "protocol/BrokerDocuments.h"

/// Reads messages that are not plain, with a JSON library. Rarely used, and large.
namespace BrokerProtocol
{

/// Fills an empty command from a message. Returns false if the message is not a known post, request or
/// notification, respectively.
/// @param unescaped receives the texts; must be empty and have room for the whole message
bool parsePost(std::string_view message, Command& command, std::vector<char>& unescaped);
bool parseRequest(std::string_view message, Command& command, std::vector<char>& unescaped);
bool parseUpdate(std::string_view message, Command& command, std::vector<char>& unescaped);

} // namespace BrokerProtocol

#endif
