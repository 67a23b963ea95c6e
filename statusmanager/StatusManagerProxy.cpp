#include "statusmanager/StatusManagerProxy.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <unistd.h>
#include <utility>
#include <zmq.h>

#include "common/Calls.h"
#include "common/Logging.h"
#include "protocol/ClientDocuments.h"
#include "statusmanager/OutgoingMessage.h"
#include "statusmanager/PostFlow.h"

OV_LOG_CONTROL_WORDS;

using namespace Orvane;

namespace Key = BrokerProtocol::Key;

// Log lines print each function's signature as its definition spells it. They have always shown a string
// reference as "const string&".
using string = std::string;

namespace
{

constexpr int noTimeLimit = -1;

// The longest time that a query waits for posts to leave this process. With it and the pause after a
// time-out, sync() still returns within 100 ms of its time limit.
constexpr std::chrono::milliseconds longestWaitForPosts{80};

// sync() is a barrier, so it waits longer if its time limit allows.
constexpr std::chrono::milliseconds longestWaitForPostsOfSync{1000};

std::chrono::milliseconds waitForPostsOfSync(int timeoutMs)
{
    if (timeoutMs < 0)
        return longestWaitForPostsOfSync;
    return std::max(longestWaitForPosts,
                    std::min(longestWaitForPostsOfSync, std::chrono::milliseconds(timeoutMs)));
}

// The time left for the answer. The first 80 ms of waiting for posts are not charged, nor is time in which
// this process did not run.
int timeForAnswer(int timeoutMs, std::chrono::milliseconds longestWait, std::chrono::milliseconds waited)
{
    const auto charged = std::min(waited, longestWait) - longestWaitForPosts;
    if (timeoutMs < 0 || charged.count() <= 0)
        return timeoutMs;
    return timeoutMs - static_cast<int>(charged.count());
}

bool isLastFrame(void* socket)
{
    int64_t more = 0;
    std::size_t size = sizeof(more);
    zmq_getsockopt(socket, ZMQ_RCVMORE, &more, &size);
    return more == 0;
}

} // namespace

// ---------------------------------------------------------------------------------- construction, teardown

StatusManagerProxy::StatusManagerProxy() : mNotifyThread("ProcessStatusMessage", 0), mPostFlow(new PostFlow)
{
    OV_TRACE(6);
    try
    {
        initSockets();
    }
    catch (...)
    {
        closeSockets(); // neither thread uses them yet: initSockets() queues the notify loop last
        throw;
    }
}

StatusManagerProxy::~StatusManagerProxy()
{
    OV_TRACE(6);
    requestEnd();
    try
    {
        endCalls();
        shutdown();
    }
    catch (const std::bad_alloc&)
    {
        // Only steps that need no memory. Calls still queued on the manager's thread are dropped unsent. This
        // thread closes the sockets, because the two threads that used them have ended.
        mNotifyThread.stop();
        mThread.removeAgentsByReceiver(this);
        mThread.stop();
        closeSockets();
    }
}

// The manager's thread works until the notify loop has ended: it sends earlier posts and passes on the
// notification that ends the loop. Only then the rest is dropped and the thread stopped, because the notify
// thread closes the manager's sockets.
void StatusManagerProxy::endCalls()
{
    callAndWait(OV_SITE, mNotifyThread, this, &StatusManagerProxy::passBy);
    callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::passBy);
    mThread.removeAgentsByReceiver(this);
    mThread.stop();
}

// In this order, so that the ending notify loop sees that closeSockets() will follow.
void StatusManagerProxy::requestEnd()
{
    mEnding.store(true, std::memory_order_relaxed);
    mShutdown.store(true, std::memory_order_release);
}

// When a thread executes this, it has finished everything queued before.
void StatusManagerProxy::passBy() {}

void StatusManagerProxy::initSockets()
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::initSockets);
    OV_TRACE(7);
    OV_LOG(7, "Creating ZMQ context");
    mZmqContext = zmq_ctx_new();
    if (mZmqContext == nullptr)
    {
        OV_LOG(0, "Failed to create ZMQ context");
        return;
    }
    OV_LOG(7, "Creating ZMQ sockets");
    mPostSocket = zmq_socket(mZmqContext, ZMQ_PUB);
    if (mPostSocket == nullptr)
    {
        OV_LOG(0, "Failed to create post socket");
        return;
    }
    mRequestSocket = zmq_socket(mZmqContext, ZMQ_REQ);
    if (mRequestSocket == nullptr)
    {
        OV_LOG(0, "Failed to create request socket");
        return;
    }
    OV_LOG(7, "Connecting post socket");
    if (zmq_connect(mPostSocket, BrokerProtocol::postEndpoint) != 0)
    {
        OV_LOG(0, "Failed to connect post socket");
        return;
    }
    OV_LOG(7, "Connecting request socket");
    if (zmq_connect(mRequestSocket, BrokerProtocol::requestEndpoint) != 0)
    {
        OV_LOG(0, "Failed to connect requester");
        return;
    }

    OV_LOG(6, "Sending Sync on post socket");
    sendPost(BrokerProtocol::syncWord);
    OV_LOG(5, "Attempting to connect to statusbroker");
    if (sync(noTimeLimit))
        OV_LOG(5, "Connection to statusbroker successful");
    else
        OV_LOG(2, "Issue connecting to statusbroker");
    processStatusMessages(mZmqContext);
}

void StatusManagerProxy::shutdown()
{
    requestEnd();
    if (!mNotifyThread.isThreadCurrent())
        return callAndWait(OV_SITE, mNotifyThread, this, &StatusManagerProxy::shutdown);
    OV_TRACE(7);
    if (mSocketsClosed)
        return;
    closeSockets();
    mNotifyThread.removeAgentsByReceiver(this);
}

void StatusManagerProxy::closeSockets()
{
    if (std::exchange(mSocketsClosed, true))
        return;
    if (mNotifySocketLeft)
        zmq_close(mNotifySocket);
    zmq_close(mPostSocket);
    // mNotifySocket is already closed here. The repeated close is required. libzmq refuses it (ENOTSOCK),
    // unless a new socket of this process has reused the memory. So nothing slow may happen between the two
    // closes.
    zmq_close(mNotifySocket);
    zmq_close(mRequestSocket);
    zmq_ctx_destroy(mZmqContext);
}

// ----------------------------------------------------------------------------------------------- transport

bool StatusManagerProxy::sendOnSocket(void* socket, const string& message)
{
    OV_TRACE(7);
    if (message.empty())
    {
        OV_LOG(0, "Trying to send empty string on socket!");
        return false;
    }
    OutgoingMessage outgoing(socket == mPostSocket ? mPostFlow.get() : nullptr);
    const std::optional<int> failure = outgoing.send(socket, message);
    if (failure)
        OV_LOG(0, "zmq_send error[%u] errno[%d]", static_cast<unsigned int>(*failure), errno);
    return !failure;
}

bool StatusManagerProxy::receiveOnSocket(void* socket, std::string& message)
{
    OV_TRACE(7);
    std::string received;
    std::array<char, BrokerProtocol::maxFrameBytes> buffer;
    do
    {
        const int size = zmq_recv(socket, buffer.data(), buffer.size(), 0);
        if (size == -1)
        {
            if (errno == EAGAIN)
                OV_LOG(0, "Timeout waiting for response on zmq socket");
            else
                OV_LOG(0, "Read from zmq socket failed, errno = %d (%s)", errno, zmq_strerror(errno));
            return false;
        }
        if (size == 0)
        {
            // If the frame is inside a message, the rest of that message must not be taken for a new message.
            OV_LOG(2, "Read 0 bytes from StatusBroker");
            return discardRestOfMessage(socket);
        }
        if (static_cast<std::size_t>(size) > buffer.size())
        {
            // `size` is the frame's length; zmq_recv() copied only as much as the buffer holds.
            OV_LOG(0, "Frame of %d bytes on zmq socket exceeds %zu, message dropped", size, buffer.size());
            return discardRestOfMessage(socket);
        }
        try
        {
            received.append(buffer.data(), static_cast<std::size_t>(size));
        }
        catch (const std::bad_alloc&)
        {
            discardRestOfMessage(socket); // or the request socket would refuse every further request
            throw;
        }
    } while (!isLastFrame(socket));
    message = std::move(received);
    return true;
}

// Always returns false, as the result of the failed receive.
bool StatusManagerProxy::discardRestOfMessage(void* socket)
{
    while (!isLastFrame(socket))
    {
        if (zmq_recv(socket, nullptr, 0, 0) == -1)
            break;
    }
    return false;
}

bool StatusManagerProxy::sendRequest(const string& request, std::string& reply, int timeoutMs)
{
    OV_TRACE(7);
    constexpr int maxAttempts = 20;
    constexpr useconds_t pauseMicroseconds = 10000;
    for (int attempt = 1; attempt <= maxAttempts; ++attempt)
    {
        if (zmq_setsockopt(mRequestSocket, ZMQ_RCVTIMEO, &timeoutMs, sizeof(timeoutMs)) != 0)
            OV_LOG(0, "Failed to zmq_setsockopt mNotifySocket"); // names the wrong socket; deliberate
        OV_LOG(6, "Sending request message [%s]", request.c_str());
        if (!sendOnSocket(mRequestSocket, request))
        {
            OV_LOG(0, "Failed to send command [%s]", request.c_str());
            return false;
        }
        OV_LOG(6, "Waiting for response on request socket");
        if (receiveOnSocket(mRequestSocket, reply))
        {
            OV_LOG(6, "Received from response [%s] for request [%s]", reply.c_str(), request.c_str());
            return true;
        }
        OV_LOG(2, "Failed to receive valid response from StatusBroker for request [%s], retry attempt [%d]",
               request.c_str(), attempt);
        usleep(pauseMicroseconds);
    }
    return false;
}

void StatusManagerProxy::sendPost(std::string message)
{
    OV_TRACE(7);
    OV_LOG(6, "Sending post message [%s]", message.c_str());
    if (!sendOnSocket(mPostSocket, message))
    {
        OV_LOG(0, "Failed to send command [%s]", message.c_str());
        mPostFlow->countUnsent();
    }
    logDropping();
}

uint64_t StatusManagerProxy::lostPosts() const
{
    return mPostFlow->lost();
}

// Returns how long it waited.
std::chrono::milliseconds StatusManagerProxy::awaitPosts(std::chrono::milliseconds limit)
{
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    mPostFlow->flush(mPostSocket, limit);
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
    logDropping();
    return waited;
}

void StatusManagerProxy::logDropping()
{
    switch (mPostFlow->takeNews())
    {
    case PostFlow::News::None:
        break;
    case PostFlow::News::DroppingBegan:
        OV_LOG(0, "StatusBroker does not take posts as fast as they are made, some are dropped from now on");
        break;
    case PostFlow::News::DroppingEnded:
        OV_LOG(0, "StatusBroker takes posts again, %u were dropped", mPostFlow->dropped());
        break;
    }
    if (mPostFlow->isDropping() && !mIsDroppingWatched)
        watchDropping();
}

// Without this, only the next post or query would notice the end of dropping.
void StatusManagerProxy::watchDropping()
{
    constexpr uint32_t intervalMs = 1000;
    try
    {
        postCallDelayed(OV_SITE, mThread, intervalMs, this, &StatusManagerProxy::lookForEndOfDropping);
        mIsDroppingWatched = true;
    }
    catch (const std::bad_alloc&)
    {
        // The next post tries again. This post has already been sent.
    }
}

void StatusManagerProxy::lookForEndOfDropping()
{
    mIsDroppingWatched = false;
    mPostFlow->look();
    logDropping();
}

void StatusManagerProxy::PostFlowEnd::operator()(PostFlow* flow) const
{
    if (flow->isDropping())
        OV_LOG(0, "StatusBroker did not take posts as fast as they were made, %u were dropped",
               flow->dropped());
    delete flow;
}

// ------------------------------------------------------------------------------------------- notify thread

void StatusManagerProxy::processStatusMessages(void* context)
{
    if (!mNotifyThread.isThreadCurrent())
        return postCall(OV_SITE, mNotifyThread, this, &StatusManagerProxy::processStatusMessages, context);
    OV_TRACE(7);
    OV_LOG(7, "Creating notify socket");
    mNotifySocket = zmq_socket(context, ZMQ_SUB);
    OV_LOG(7, "Connecting notify socket");
    if (zmq_connect(mNotifySocket, BrokerProtocol::notifyEndpoint) != 0)
        OV_LOG(0, "Failed to connect mNotifySocket");
    OV_LOG(7, "Setting notify socket options");
    if (zmq_setsockopt(mNotifySocket, ZMQ_SUBSCRIBE, "", 0) != 0)
        OV_LOG(0, "Failed to zmq_setsockopt mNotifySocket");
    OV_LOG(7, "Beginning poll for messages on notify socket");
    while (!mShutdown.load(std::memory_order_acquire))
    {
        OV_LOG(6, "Polling for messages on notify socket");
        std::string message;
        try
        {
            if (!receiveOnSocket(mNotifySocket, message))
                OV_LOG(2, "Failed to receive valid message from StatusBroker!");
            if (message.empty())
                OV_LOG(2, "Received empty notify message");
            else if (message == BrokerProtocol::syncWord)
                OV_LOG(6, "Received Sync on notify socket");
            else
                handleNotifyMessage(message);
        }
        catch (const std::bad_alloc&)
        {
            // The loop must not end: this process would never receive a notification again.
            OV_LOG(0, "A notification was lost for want of memory");
        }
    }
    // The handle keeps its value for the repeated close. The destructor lets the manager's thread finish its
    // work first, so the repeated close may come much later. Then closeSockets() does both closes.
    mNotifySocketLeft = mEnding.load(std::memory_order_relaxed);
    if (!mNotifySocketLeft)
        zmq_close(mNotifySocket);
}

void StatusManagerProxy::handleNotifyMessage(const string& message)
{
    OV_TRACE(7);
    OV_LOG(6, "Handling notify message [%s]", message.c_str());
    BrokerProtocol::Notification notification = BrokerProtocol::readNotification(message);
    switch (notification.kind)
    {
    case BrokerProtocol::Notification::Kind::StatusUpdate:
        handleStatusUpdate(std::move(notification.members));
        break;
    case BrokerProtocol::Notification::Kind::EventUpdate:
        for (const auto& [name, value] : notification.members)
            handleEventUpdate(name, value);
        break;
    case BrokerProtocol::Notification::Kind::Unhandled:
        OV_LOG(2, "Unhandled notify message [%s]", message.c_str());
        break;
    case BrokerProtocol::Notification::Kind::Unparsable:
        OV_LOG(0, "Failed to parse buf [%s]", message.c_str());
        break;
    }
}

// --------------------------------------------------------------------------------------------------- posts

void StatusManagerProxy::updateSystemTime(uint32_t time)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::updateSystemTime, time);
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeUpdateSystemTime(time));
}

void StatusManagerProxy::postStatus(StatusMap status)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManagerProxy::postStatus, std::move(status));
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeMap(Key::postStatus, status));
}

void StatusManagerProxy::resetStatus(StatusKeys keys)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManagerProxy::resetStatus, std::move(keys));
    OV_TRACE(7);
    unsigned int index = 0;
    for (const std::string& key : keys)
        OV_LOG(7, "Key[%u] = [%s]", index++, key.c_str());
    sendPost(BrokerProtocol::writeList(Key::resetStatus, keys));
}

void StatusManagerProxy::postEvent(std::string name, std::string value, uint32_t delay)
{
    if (!mThread.isThreadCurrent())
    {
        if (delay == 0)
            return postCall(OV_SITE, mThread, this, &StatusManagerProxy::postEvent, std::move(name),
                            std::move(value), delay);
        return postCallDelayed(OV_SITE, mThread, delay, this, &StatusManagerProxy::postEvent, std::move(name),
                               std::move(value), delay);
    }
    OV_TRACE(7);
    sendPost(BrokerProtocol::writePostEvent(name, value));
}

void StatusManagerProxy::startTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManagerProxy::startTimer, std::move(name));
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeText(Key::startTimer, name));
}

void StatusManagerProxy::stopTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManagerProxy::stopTimer, std::move(name));
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeText(Key::stopTimer, name));
}

void StatusManagerProxy::resetTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManagerProxy::resetTimer, std::move(name));
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeText(Key::resetTimer, name));
}

void StatusManagerProxy::restartTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManagerProxy::restartTimer, std::move(name));
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeText(Key::restartTimer, name));
}

void StatusManagerProxy::setCounterValue(std::string name, uint32_t value)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManagerProxy::setCounterValue, std::move(name), value);
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeSetCounterValue(name, value));
}

// ------------------------------------------------------------------------------------------------- queries

/// A query: its request, and how log lines show it.
struct StatusManagerProxy::Query
{
    const char* function; // the operation's signature, shown in its log lines
    const char* name;
    std::string request;
    const char* key = nullptr; // shown after the name unless null
};

namespace
{

// Whether a reply could be read. Reading a number always succeeds: other text counts as 0.
template <class Value>
bool isRead(const std::optional<Value>& value)
{
    return value.has_value();
}
template <class Number>
bool isRead(Number)
{
    return true;
}

} // namespace

template <class Answer>
Answer StatusManagerProxy::ask(const Query& query, Answer (*read)(const std::string& reply))
{
    awaitPosts(longestWaitForPosts);
    std::string reply;
    if (!sendRequest(query.request, reply, noTimeLimit))
    {
        ov_log_print(0, query.function, OV_LOG_FILE, __LINE__,
                     query.key == nullptr ? "Failed to send %s request to StatusBroker"
                                          : "Failed to send %s [%s] request to StatusBroker",
                     query.name, query.key);
        return Answer();
    }
    if (reply.empty()) // read() handles it too: not JSON, or the number 0
        ov_log_print(2, query.function, OV_LOG_FILE, __LINE__, "Empty response from StatusBroker!");
    Answer answer = read(reply);
    if (!isRead(answer))
        ov_log_print(0, query.function, OV_LOG_FILE, __LINE__, "Failed to parse buf [%s]", reply.c_str());
    return answer;
}

StatusMap StatusManagerProxy::getClientInfo()
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::getClientInfo);
    OV_TRACE(7);
    const Query query{__PRETTY_FUNCTION__, Key::getClientInfo, BrokerProtocol::writeGetClientInfo()};
    return ask(query, BrokerProtocol::readMapReply).value_or(StatusMap());
}

std::string StatusManagerProxy::getClientInfoValue(const string& key)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::getClientInfoValue, key);
    OV_TRACE(7);
    OV_LOG(7, "Status value for status key[%s] requested", key.c_str());
    const Query query{__PRETTY_FUNCTION__, Key::getClientInfoValue,
                      BrokerProtocol::writeText(Key::getClientInfoValue, key), key.c_str()};
    std::optional<std::string> value = ask(query, BrokerProtocol::readStatusValueReply);
    if (!value)
        return {};
    OV_LOG(7, "Received requested status value, status[%s] = value[%s]", key.c_str(), value->c_str());
    return std::move(*value);
}

StatusMap StatusManagerProxy::getClientInfoValues(const StatusKeys& keys)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::getClientInfoValues, keys);
    OV_TRACE(7);
    OV_LOG(7, "Status value for %u status keys requested", static_cast<unsigned int>(keys.size()));
    unsigned int index = 0;
    for (const std::string& key : keys)
        OV_LOG(7, "Key[%u] = [%s]", index++, key.c_str());
    const Query query{__PRETTY_FUNCTION__, Key::getClientInfoValues,
                      BrokerProtocol::writeList(Key::getClientInfoValues, keys)};
    std::optional<StatusMap> values = ask(query, BrokerProtocol::readMapReply);
    if (!values)
        return {};
    OV_LOG(7, "Received requested status value pairs for %u status keys",
           static_cast<unsigned int>(values->size()));
    index = 0;
    for (const auto& [key, value] : *values)
        OV_LOG(7, "Pair[%u]: Key[%s] = [%s]", index++, key.c_str(), value.c_str());
    return std::move(*values);
}

uint64_t StatusManagerProxy::getTimerElapsed(const string& name)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::getTimerElapsed, name);
    OV_TRACE(7);
    const Query query{__PRETTY_FUNCTION__, Key::getTimerElapsed,
                      BrokerProtocol::writeText(Key::getTimerElapsed, name)};
    return ask(query, BrokerProtocol::readTimerReply);
}

uint64_t StatusManagerProxy::getTimerLastStarted(const string& name)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::getTimerLastStarted, name);
    OV_TRACE(7);
    const Query query{__PRETTY_FUNCTION__, Key::getTimerLastStarted,
                      BrokerProtocol::writeText(Key::getTimerLastStarted, name)};
    return ask(query, BrokerProtocol::readTimerReply);
}

uint32_t StatusManagerProxy::getCounterValue(const string& name)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::getCounterValue, name);
    OV_TRACE(7);
    const Query query{__PRETTY_FUNCTION__, Key::getCounterValue,
                      BrokerProtocol::writeText(Key::getCounterValue, name)};
    return ask(query, BrokerProtocol::readCounterReply);
}

uint32_t StatusManagerProxy::incrementCounter(const string& name)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::incrementCounter, name);
    OV_TRACE(7);
    const Query query{__PRETTY_FUNCTION__, Key::incrementCounter,
                      BrokerProtocol::writeText(Key::incrementCounter, name)};
    return ask(query, BrokerProtocol::readCounterReply);
}

bool StatusManagerProxy::sync(int timeoutMs)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManagerProxy::sync, timeoutMs);
    OV_TRACE(7);
    OV_LOG(6, "Sending Sync on request socket and waiting for response");
    const std::chrono::milliseconds longestWait = waitForPostsOfSync(timeoutMs);
    const std::chrono::milliseconds waited = awaitPosts(longestWait);
    std::string reply;
    if (!sendRequest(BrokerProtocol::syncWord, reply, timeForAnswer(timeoutMs, longestWait, waited)))
    {
        OV_LOG(0, "Failed to send Sync request to StatusBroker");
        return false;
    }
    if (reply.empty())
        OV_LOG(2, "Empty response from StatusBroker!");
    OV_LOG(6, "Received response [%s] to Sync request", reply.c_str());
    if (reply != BrokerProtocol::syncAckWord)
    {
        OV_LOG(0, "Received unexpected response [%s] to Sync request", reply.c_str());
        return false;
    }
    OV_LOG(7, "Successfully received SyncAck from StatusBroker");
    return true;
}
