#ifndef PROTOCOL_BROKERDOCUMENTS_H
#define PROTOCOL_BROKERDOCUMENTS_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/Client.h"
#include "protocol/TimerReading.h"
#include "protocol/ValueDetails.h"
#include "protocol/Words.h"

/// The documents as the broker reads and writes them. Pure functions; no sockets, no threads.
///
/// Reading a message takes memory and time in proportion to its size: there are five shapes, and what is none
/// of them is given up where that shows. Members of eleven bytes or more, as short keys with short values
/// are, take three times their size; no list takes more than mostMembers elements. Nothing here throws but
/// std::bad_alloc.
namespace BrokerProtocol
{

/// The operation that a client asks for.
enum class Operation
{
    // posts
    UpdateSystemTime,
    PostStatus,
    ResetStatus,
    PostEvent,
    StartTimer,
    StopTimer,
    ResetTimer,
    RestartTimer,
    SetCounterValue,
    // requests
    GetClientInfo,
    GetClientInfoValue,
    GetClientInfoValues,
    GetTimerElapsed,
    GetTimerLastStarted,
    GetCounterValue,
    IncrementCounter,
    GetBrokerStatistics,
    GetBrokerClients,
    GetPolicyDecision,
    GetStatusDetails,
    ForgetStatus,
    ForgetTimers,
    ForgetCounters,
    GetTimers,
    GetCounters,
    SetTimer,
};

/// The name under which messages know it.
const char* nameOf(Operation operation);

/// A name and its value, which stand somewhere else.
struct Member
{
    std::string_view name;
    std::string_view value;
};

/// A message of more members, or list elements, than this is refused: reading it would make others wait.
constexpr std::size_t mostMembers = 10000;

/// A post or a request as the broker understands it: exactly one member, whose name is an operation's and
/// whose value has exactly the types that the client writes. The texts stand in the message that was read, or
/// in this object, where the message spells them with escapes. To be used again for the next message.
class Command
{
public:
    Operation operation{};
    std::string_view text;       ///< the name of a timer, a counter or a status key
    std::vector<Member> members; ///< PostStatus, PostEvent: in the order of the names, each there once
    std::vector<std::string_view> texts; ///< ResetStatus, GetClientInfoValues, GetPolicyDecision,
                                         ///< GetStatusDetails, Forget..., SetTimer: in their order
    uint32_t number = 0;                 ///< UpdateSystemTime, SetCounterValue

    /// False if the message is malformed, or no post or no request respectively.
    bool readPost(std::string_view message);
    bool readRequest(std::string_view message);

    /// The same for a notification: as the post of values, or of events, of which it tells.
    bool readUpdate(std::string_view message);

private:
    template <class Forms, class Parse>
    bool read(std::string_view message, const Forms& forms, Parse parse);
    void clear();
    void makeRoom(std::size_t bytes);
    void sortMembers();

    std::vector<char> mUnescaped;
};

// ---- Each appends to a text.

void appendText(std::string& to, std::string_view text);

/// "<name>":"<value>", behind a comma unless a member list begins with it.
void appendMember(std::string& to, const Member& member);

/// {"<key>":{"<name>":"<value>",...}}
void appendUpdate(std::string& to, const char* key, const std::vector<Member>& members);

void appendStatusValueReply(std::string& to, std::string_view value);
void appendTimerReply(std::string& to, uint64_t microseconds);

/// As a signed number: above 2^31 the only text that clients of 32 bits read right, too, since atoi() ends
/// there.
void appendCounterReply(std::string& to, uint32_t value);

/// {"<key>":["<text>",...]}
void appendList(std::string& to, const char* key, const std::vector<std::string_view>& texts);

/// @param isComplete no process is being looked for
void appendClients(std::string& to, const std::vector<Client>& clients, bool isComplete);

/// The object of a key in the answer to getStatusDetails.
void appendDetails(std::string& to, const ValueDetails& details);

/// The object of a timer in the answer to getTimers.
void appendTimer(std::string& to, const TimerReading& timer);

/// An object of numbers.
void appendNumbers(std::string& to, const std::map<std::string, uint64_t>& numbers);

} // namespace BrokerProtocol

#endif
