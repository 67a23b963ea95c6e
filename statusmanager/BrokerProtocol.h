#ifndef STATUSMANAGER_BROKERPROTOCOL_H
#define STATUSMANAGER_BROKERPROTOCOL_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "statusmanager/StatusTypes.h"

/// The messages that the library and the broker exchange: how each is written and how each is read. Pure
/// functions; no sockets, no threads. docs/protocol.md shows every message.
///
/// Nothing here throws but std::bad_alloc: whatever arrives is read, or reported as unreadable.
namespace BrokerProtocol
{

/// The words of the protocol. Constants without a constructor: they are there before any static initialiser
/// runs, and still there when the library's threads outlive the end of main().
namespace Key
{
constexpr const char* getClientInfo = "getClientInfo";
constexpr const char* getClientInfoValue = "getClientInfoValue";
constexpr const char* getClientInfoValues = "getClientInfoValues";
constexpr const char* getTimerElapsed = "getTimerElapsed";
constexpr const char* getTimerLastStarted = "getTimerLastStarted";
constexpr const char* getCounterValue = "getCounterValue";
constexpr const char* incrementCounter = "incrementCounter";
constexpr const char* updateSystemTime = "updateSystemTime";
constexpr const char* postStatus = "postStatus";
constexpr const char* resetStatus = "resetStatus";
constexpr const char* postEvent = "postEvent";
constexpr const char* startTimer = "startTimer";
constexpr const char* stopTimer = "stopTimer";
constexpr const char* resetTimer = "resetTimer";
constexpr const char* restartTimer = "restartTimer";
constexpr const char* setCounterValue = "setCounterValue";
constexpr const char* counterName = "counterName";   // reserved: no message uses it
constexpr const char* counterValue = "counterValue"; // reserved: no message uses it
constexpr const char* statusUpdate = "statusUpdate";
constexpr const char* eventUpdate = "eventUpdate";
constexpr const char* statusValue = "statusValue";
constexpr const char* getBrokerStatistics = "getBrokerStatistics";
} // namespace Key

/// The control words, sent as bare text.
constexpr const char* syncWord = "Sync";
constexpr const char* syncAckWord = "SyncAck";

/// Messages travel in frames of at most this many bytes.
constexpr std::size_t maxFrameBytes = 512;

// --------------------------------------------------------------- posts and requests, written by the client

/// {"<key>":"<text>"}: the timer posts, and the requests that name one thing.
std::string writeText(const char* key, const std::string& text);

/// {"<key>":["<text>",...]}, in list order: resetStatus, getClientInfoValues.
std::string writeList(const char* key, const StatusKeys& texts);

/// {"<key>":{"<name>":"<value>",...}}: postStatus, and the broker's statusUpdate.
std::string writeMap(const char* key, const StatusMap& values);

std::string writeUpdateSystemTime(uint32_t seconds);
std::string writePostEvent(const std::string& name, const std::string& value);
std::string writeSetCounterValue(const std::string& name, uint32_t value);

/// The value is the four-letter string "null", not a JSON null.
std::string writeGetClientInfo();

// ----------------------------------------------------------------------------- replies, read by the client

/// A {"<key>":"<value>",...} reply; null and [] are replies without members. Nothing for any other text.
std::optional<StatusMap> readMapReply(const std::string& reply);

/// A {"statusValue":"<value>"} reply: the value, or empty if the member is missing, as it is from null and
/// []. Nothing for any other text.
std::optional<std::string> readStatusValueReply(const std::string& reply);

/// Bare decimal text; 0 for anything else.
uint64_t readTimerReply(const std::string& reply);
uint32_t readCounterReply(const std::string& reply);

// ----------------------------------------------------------------------- notifications, read by the client

struct Notification
{
    enum class Kind
    {
        StatusUpdate,
        EventUpdate,
        Unhandled,  ///< JSON with neither key
        Unparsable, ///< not JSON, or not of the shape that its key asks for
    };

    Kind kind = Kind::Unparsable;
    StatusMap members; ///< in the order of their names
};

/// Where both keys are present, the status update is read and the event is not looked at. An update that is
/// null or [] has no members.
Notification readNotification(const std::string& message);

// ----------------------------------------------------- what the broker counts about itself; tools ask for it

using Statistics = std::map<std::string, uint64_t>;

std::string writeGetBrokerStatistics();

/// An object of numbers.
std::string writeStatisticsReply(const Statistics& statistics);
std::optional<Statistics> readStatisticsReply(const std::string& reply);

// ------------------------------------------------------------------ posts and requests, read by the broker

/// A post or a request as the broker understands it: exactly one member, whose key is known and whose payload
/// has exactly the types that the client writes.
struct Command
{
    std::string_view key;          ///< one of Key
    std::string text;              ///< the name of a timer, counter or status key
    std::vector<std::string> list; ///< resetStatus, getClientInfoValues
    StatusMap map;                 ///< postStatus, postEvent
    uint32_t number = 0;           ///< updateSystemTime, setCounterValue
};

/// Nothing if the message is malformed, or its key is not one of posts or requests respectively.
std::optional<Command> readPost(const std::string& message);
std::optional<Command> readRequest(const std::string& message);

// ---------------------------------------------------------------- replies and notifications, by the broker

std::string writeMapReply(const StatusMap& values);
std::string writeStatusValueReply(const std::string& value);
std::string writeTimerReply(uint64_t microseconds);
/// As a signed number: above 2^31 the only text that clients of 32 bits read right, too, since atoi() ends
/// there.
std::string writeCounterReply(uint32_t value);
std::string writeStatusUpdate(const StatusMap& changes);
std::string writeEventUpdate(const StatusMap& events);

} // namespace BrokerProtocol

#endif
