#ifndef STATUSCTL_VERBS_DETAILSTEXT_H
#define STATUSCTL_VERBS_DETAILSTEXT_H

#include <string>
#include <vector>

#include "statusctl/health/Details.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Timestamp.h"

/// How the details of values are printed.
namespace DetailsText
{

/// One under the other, for people.
void print(Output& output, const std::string& key, const Details& details, Timestamp::Time now);

/// As JSON, or as a table with a line for each key, whichever is asked for. The table cuts long values off.
void printLong(Output& output, const Settings& settings, const Details::ByKey& details);

/// {"details":[{"key":...,"value":...,...},...]}; what is unknown is left out.
Json::Value toJson(const Details::ByKey& details);

/// The members of a client that are known.
Json::Value toJson(const BrokerProtocol::Poster& poster);

/// In a few letters: "net.service", or "root (sh)" where it is no service; "-" if nothing is known.
std::string briefly(const BrokerProtocol::Poster& poster);

} // namespace DetailsText

#endif
