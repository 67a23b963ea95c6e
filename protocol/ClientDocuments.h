#ifndef PROTOCOL_CLIENTDOCUMENTS_H
#define PROTOCOL_CLIENTDOCUMENTS_H

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "protocol/Words.h"

/// The documents as clients write and read them. Pure functions; no sockets, no threads.
///
/// Functions here throw nothing but std::bad_alloc. They read any text, or report it as unreadable.
namespace BrokerProtocol
{

/// Names and their values: status values by key, events by name.
using Members = std::map<std::string, std::string>;

/// A list of names, in its order.
using Texts = std::deque<std::string>;

// ----------------------------------------------------------------- posts and requests, written by the client

/// {"<key>":"<text>"}: the timer posts, and the requests with one name.
std::string writeText(const char* key, const std::string& text);

/// {"<key>":["<text>",...]}, in list order: resetStatus, getClientInfoValues.
std::string writeList(const char* key, const Texts& texts);

/// {"<key>":{"<name>":"<value>",...}}: postStatus.
std::string writeMap(const char* key, const Members& values);

std::string writeUpdateSystemTime(uint32_t seconds);
std::string writePostEvent(const std::string& name, const std::string& value);
std::string writeSetCounterValue(const std::string& name, uint32_t value);

/// The value is the four-letter string "null", not a JSON null.
std::string writeGetClientInfo();

// ------------------------------------------------------------------------------- replies, read by the client

/// Reads a {"<key>":"<value>",...} reply; null and [] are replies without members. Returns nothing for any
/// other text.
std::optional<Members> readMapReply(const std::string& reply);

/// Reads a {"statusValue":"<value>"} reply. Returns "" if the member is missing, also for null and [].
/// Returns nothing for any other text.
std::optional<std::string> readStatusValueReply(const std::string& reply);

/// Reads bare decimal text; returns 0 for anything else.
uint64_t readTimerReply(const std::string& reply);
uint32_t readCounterReply(const std::string& reply);

// ------------------------------------------------------------------------- notifications, read by the client

struct Notification
{
    enum class Kind
    {
        StatusUpdate,
        EventUpdate,
        Unhandled,  ///< JSON with neither key
        Unparsable, ///< not JSON, or not of the shape that belongs to its key
    };

    Kind kind = Kind::Unparsable;
    Members members; ///< in the order of their names
};

/// If both keys are present, the status update is read and the event is ignored. An update that is null or []
/// has no members.
Notification readNotification(const std::string& message);

// --------------------------------------------------------------- the broker's statistics, requested by tools

using Statistics = std::map<std::string, uint64_t>;

std::string writeGetBrokerStatistics();

/// Reads an object of numbers.
std::optional<Statistics> readStatisticsReply(const std::string& reply);

} // namespace BrokerProtocol

#endif
