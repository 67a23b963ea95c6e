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
/// Reading a message takes memory and time in proportion to its size. Messages have five shapes, and reading
/// stops at the first byte that fits none of them. Members of eleven bytes or more, such as short keys with
/// short values, take three times their size. No list holds more than mostMembers elements. Functions here
/// throw nothing but std::bad_alloc.
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

/// The name of the operation in messages.
const char* nameOf(Operation operation);

/// A name and its value. The texts are stored elsewhere.
struct Member
{
    std::string_view name;
    std::string_view value;
};

/// A message with more members or list elements is refused, because reading it would make others wait.
constexpr std::size_t mostMembers = 10000;

/// A post or a request as the broker reads it. The message has exactly one member, named after an operation;
/// its value has exactly the types that clients write. Texts point into the message, or into this object
/// where the message escapes them. The object can be reused for the next message.
class Command
{
public:
    Operation operation{};
    std::string_view text;       ///< the name of a timer, a counter or a status key
    std::vector<Member> members; ///< PostStatus, PostEvent: in the order of the names, each there once
    std::vector<std::string_view> texts; ///< ResetStatus, GetClientInfoValues, GetPolicyDecision,
                                         ///< GetStatusDetails, Forget..., SetTimer: in their order
    uint32_t number = 0;                 ///< UpdateSystemTime, SetCounterValue

    /// Returns false if the message is malformed, or is not a post (readPost) or not a request (readRequest).
    bool readPost(std::string_view message);
    bool readRequest(std::string_view message);

    /// Reads a notification, as the post of values or events that it reports.
    bool readUpdate(std::string_view message);

private:
    template <class Forms, class Parse>
    bool read(std::string_view message, const Forms& forms, Parse parse);
    void clear();
    void makeRoom(std::size_t bytes);
    void sortMembers();

    std::vector<char> mUnescaped;
};

// ---- Each of these appends to a text.

void appendText(std::string& to, std::string_view text);

/// Appends "<name>":"<value>". A comma comes first, except for the first member of a list.
void appendMember(std::string& to, const Member& member);

/// {"<key>":{"<name>":"<value>",...}}
void appendUpdate(std::string& to, const char* key, const std::vector<Member>& members);

void appendStatusValueReply(std::string& to, std::string_view value);
void appendTimerReply(std::string& to, uint64_t microseconds);

/// Appends a signed number. Clients read it with atoi(): from 2^31 on, only the signed form is right on 32
/// bits too.
void appendCounterReply(std::string& to, uint32_t value);

/// {"<key>":["<text>",...]}
void appendList(std::string& to, const char* key, const std::vector<std::string_view>& texts);

/// @param isComplete whether the broker has finished looking for processes
void appendClients(std::string& to, const std::vector<Client>& clients, bool isComplete);

/// Appends the object of one key in the answer to getStatusDetails.
void appendDetails(std::string& to, const ValueDetails& details);

/// Appends the object of one timer in the answer to getTimers.
void appendTimer(std::string& to, const TimerReading& timer);

/// Appends an object of numbers.
void appendNumbers(std::string& to, const std::map<std::string, uint64_t>& numbers);

} // namespace BrokerProtocol

#endif
