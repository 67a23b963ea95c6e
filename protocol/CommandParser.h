#ifndef PROTOCOL_COMMANDPARSER_H
#define PROTOCOL_COMMANDPARSER_H

#include <string>
#include <string_view>
#include <vector>

#include "protocol/BrokerDocuments.h"

/// Messages and texts that are not plain, by a JSON library. Seldom used, and large.
namespace BrokerProtocol
{

/// Fills an empty command from a message. False if it is none of the posts, requests or
/// notifications.
/// @param unescaped holds the texts; empty, and with room for the whole message
bool parsePost(std::string_view message, Command& command, std::vector<char>& unescaped);
bool parseRequest(std::string_view message, Command& command, std::vector<char>& unescaped);
bool parseUpdate(std::string_view message, Command& command, std::vector<char>& unescaped);

/// The text as JSON shows it, with its quotes. Bytes that are not UTF-8 become U+FFFD.
std::string escaped(std::string_view text);

} // namespace BrokerProtocol

#endif
