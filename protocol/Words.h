#ifndef PROTOCOL_WORDS_H
#define PROTOCOL_WORDS_H

#include <cstddef>
#include <cstdint>

/// The words, endpoints and sizes that both sides share. docs/protocol.md shows every message.
namespace BrokerProtocol
{

/// The names of operations and members. Constants without a constructor exist before any static initialiser
/// runs, and still exist when the library's threads outlive main().
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
constexpr const char* getBrokerClients = "getBrokerClients";
constexpr const char* getPolicyDecision = "getPolicyDecision";
constexpr const char* getStatusDetails = "getStatusDetails";
constexpr const char* statusDetails = "statusDetails";
constexpr const char* forgetStatus = "forgetStatus";
constexpr const char* forgetTimers = "forgetTimers";
constexpr const char* forgetCounters = "forgetCounters";
constexpr const char* forgotten = "forgotten"; ///< the answer to the three above
constexpr const char* getTimers = "getTimers";
constexpr const char* timers = "timers"; ///< the answer to getTimers
constexpr const char* getCounters = "getCounters";
constexpr const char* counters = "counters"; ///< the answer to getCounters
constexpr const char* setTimer = "setTimer";
} // namespace Key

/// The numbers of getBrokerStatistics that the tools use.
namespace Number
{
constexpr const char* posts = "posts";
constexpr const char* published = "notifications.published";
constexpr const char* missedEvents = "notifications.missedEvents";
constexpr const char* fallenBehind = "subscribers.fallenBehind";
constexpr const char* commits = "state.commits";
constexpr const char* stateErrors = "state.errors";
constexpr const char* malformedPosts = "malformed.posts";
constexpr const char* malformedRequests = "malformed.requests";
constexpr const char* systemTimeRefused = "refused.systemTime";
constexpr const char* policyDenied = "policy.denied";
constexpr const char* policyAudited = "policy.audited";
constexpr const char* policyUnknownOwners = "policy.unknownOwners";
constexpr const char* policyOwnersGone = "policy.ownersGone";
constexpr const char* policyQuota = "policy.quota";
constexpr const char* openDescriptors = "descriptors.open";
constexpr const char* mostDescriptors = "descriptors.limit";
} // namespace Number

/// The members of the answer to getBrokerClients. Members that the broker does not know are left out.
namespace ClientMember
{
constexpr const char* clients = "clients";   ///< the list of all clients
constexpr const char* complete = "complete"; ///< 0: still looking for processes, ask again; else 1
constexpr const char* user = "user";
constexpr const char* uid = "uid";
constexpr const char* service = "service";
constexpr const char* pid = "pid";
constexpr const char* program = "program";
constexpr const char* shared = "shared"; ///< other processes also have its sockets
constexpr const char* since = "since";   ///< microseconds since the Unix epoch
constexpr const char* connections = "connections";
constexpr const char* posts = "posts";
constexpr const char* requests = "requests";
constexpr const char* queued = "queued"; ///< bytes
constexpr const char* refusals = "refusals";
constexpr const char* received = "received"; ///< bytes
constexpr const char* sent = "sent";         ///< bytes
} // namespace ClientMember

/// The members of the answer to getStatusDetails, for each key. Unknown members of a client are left out.
/// User, service, program and process are as in the answer to getBrokerClients.
namespace DetailMember
{
constexpr const char* value = "value";
constexpr const char* posted = "posted";   ///< microseconds since the Unix epoch
constexpr const char* changed = "changed"; ///< microseconds since the Unix epoch
constexpr const char* posts = "posts";
constexpr const char* changes = "changes";
constexpr const char* poster = "poster";
constexpr const char* changer = "changer"; ///< left out if it is the poster
} // namespace DetailMember

/// The members of the answer to getTimers, for each timer.
namespace TimerMember
{
constexpr const char* elapsed = "elapsed";         ///< microseconds
constexpr const char* lastStarted = "lastStarted"; ///< microseconds since the Unix epoch; 0: never
constexpr const char* running = "running";         ///< 1 or 0
} // namespace TimerMember

/// The last text of setTimer.
constexpr const char* timerRuns = "running";
constexpr const char* timerStands = "stopped";

/// The members of the answer to getPolicyDecision: either the error, or the two others.
namespace DecisionMember
{
constexpr const char* error = "error";
constexpr const char* allowed = "allowed"; ///< "yes" or "no"
constexpr const char* reason = "reason";
} // namespace DecisionMember

/// The control words, sent as bare text.
constexpr const char* syncWord = "Sync";
constexpr const char* syncAckWord = "SyncAck";

/// The broker's answer to "Sync" when earlier posts of the client may have been lost. Any word but "SyncAck"
/// makes sync() return false.
constexpr const char* syncLostWord = "SyncLost";

/// Messages travel in frames of at most this many bytes.
constexpr std::size_t maxFrameBytes = 512;

/// Whether a message of this length would lose its end. libstatusmanager computes the length of the last
/// frame so that a message of whole frames loses the last one. Clients in the field send like this, so it
/// must stay. See docs/protocol.md.
constexpr bool losesItsEnd(std::size_t messageBytes)
{
    return messageBytes % maxFrameBytes == 0;
}

/// The broker's addresses.
constexpr uint16_t requestPort = 5555;
constexpr uint16_t postPort = 5556;
constexpr uint16_t notifyPort = 5557;
constexpr const char* requestEndpoint = "tcp://127.0.0.1:5555";
constexpr const char* postEndpoint = "tcp://127.0.0.1:5556";
constexpr const char* notifyEndpoint = "tcp://127.0.0.1:5557";

} // namespace BrokerProtocol

#endif
