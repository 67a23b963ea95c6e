#ifndef STATUSCTL_VERBS_DETAILSTEXT_H
#define STATUSCTL_VERBS_DETAILSTEXT_H

#include <string>
#include <vector>

#include "statusctl/health/Details.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Timestamp.h"

/// Prints the details of values.
namespace DetailsText
{

/// Prints one detail a line, for people.
void print(Output& output, const std::string& key, const Details& details, Timestamp::Time now);

/// Prints JSON or a table with a line for each key, as the settings say. The table cuts long values off.
void printLong(Output& output, const Settings& settings, const Details::ByKey& details);

/// {"details":[{"key":...,"value":...,...},...]}, without unknown members.
Json::Value toJson(const Details::ByKey& details);

/// The known members of a client.
Json::Value toJson(const BrokerProtocol::Poster& poster);

/// A short name: "net.service", or "root (sh)" for a client that is no service; "-" if unknown.
std::string briefly(const BrokerProtocol::Poster& poster);

} // namespace DetailsText

#endif
