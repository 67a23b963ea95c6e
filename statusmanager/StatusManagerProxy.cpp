#include "statusmanager/StatusManagerProxy.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <unistd.h>
#include <utility>
#include <zmq.h>

#include "common/EventAgent.h"
#include "common/Logging.h"
#include "statusmanager/BrokerProtocol.h"
#include "statusmanager/PostFlow.h"

OV_LOG_CONTROL_WORDS;

using namespace Orvane;

namespace Key = BrokerProtocol::Key;

// Log lines print each function's signature as its definition spells it, and these have always shown a
// reference to a string as "const string&".
using string = std::string;

namespace
{

constexpr const char* requestEndpoint = "tcp://127.0.0.1:5555";
constexpr const char* postEndpoint = "tcp://127.0.0.1:5556";
constexpr const char* notifyEndpoint = "tcp://127.0.0.1:5557";

constexpr int noTimeLimit = -1;

bool isLastFrame(void* socket)
{
    int64_t more = 0;
    std::size_t size = sizeof(more);
    zmq_getsockopt(socket, ZMQ_RCVMORE, &more, &size);
    return more == 0;
}

} // namespace

// ---------------------------------------------------------------------------------- construction, teardown

StatusManagerProxy::StatusManagerProxy()
    : mNotifyThread("ProcessStatusMessage", 0), mPostFlow(std::make_unique<PostFlow>())
{
    OV_TRACE(6);
    initSockets();
}

StatusManagerProxy::~StatusManagerProxy()
{
    OV_TRACE(6);
    // The teardown closes the manager's sockets on the notify thread, so nothing may be using them by then.
    mThread.removeAgentsByReceiver(this);
    mThread.stop();
    shutdown();
}

void StatusManagerProxy::initSockets()
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncEventAgent0<StatusManagerProxy>(this, &StatusManagerProxy::initSockets);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    if (!createSockets() || !connectSockets())
        return;

    OV_LOG(6, "Sending Sync on post socket");
    sendPost(BrokerProtocol::syncWord);
    OV_LOG(5, "Attempting to connect to statusbroker");
    if (sync(noTimeLimit))
        OV_LOG(5, "Connection to statusbroker successful");
    else
        OV_LOG(2, "Issue connecting to statusbroker");
    processStatusMessages(mZmqContext);
}

bool StatusManagerProxy::createSockets()
{
    OV_LOG(7, "Creating ZMQ context");
    mZmqContext = zmq_ctx_new();
    if (mZmqContext == nullptr)
    {
        OV_LOG(0, "Failed to create ZMQ context");
        return false;
    }
    OV_LOG(7, "Creating ZMQ sockets");
    mPostSocket = zmq_socket(mZmqContext, ZMQ_PUB);
    if (mPostSocket == nullptr)
    {
        OV_LOG(0, "Failed to create post socket");
        return false;
    }
    mRequestSocket = zmq_socket(mZmqContext, ZMQ_REQ);
    if (mRequestSocket == nullptr)
    {
        OV_LOG(0, "Failed to create request socket");
        return false;
    }
    return true;
}

bool StatusManagerProxy::connectSockets()
{
    OV_LOG(7, "Connecting post socket");
    if (zmq_connect(mPostSocket, postEndpoint) != 0)
    {
        OV_LOG(0, "Failed to connect post socket");
        return false;
    }
    OV_LOG(7, "Connecting request socket");
    if (zmq_connect(mRequestSocket, requestEndpoint) != 0)
    {
        OV_LOG(0, "Failed to connect requester");
        return false;
    }
    return true;
}

void StatusManagerProxy::shutdown()
{
    mShutdown.store(true, std::memory_order_relaxed);
    if (!mNotifyThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncEventAgent0<StatusManagerProxy>(this, &StatusManagerProxy::shutdown);
        return agent->send(&mNotifyThread);
    }
    OV_TRACE(7);
    if (mSocketsClosed)
        return;
    mSocketsClosed = true;
    zmq_close(mPostSocket);
    // The notify loop has closed this one already. The repeated close is required; libzmq refuses it
    // (ENOTSOCK).
    zmq_close(mNotifySocket);
    zmq_close(mRequestSocket);
    zmq_ctx_destroy(mZmqContext);
    mNotifyThread.removeAgentsByReceiver(this);
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
    for (std::size_t offset = 0;;)
    {
        const bool last = message.size() - offset <= BrokerProtocol::maxFrameBytes;
        // The last frame's size is computed from the whole length, not from the remainder. Kept on purpose: a
        // message whose length is a multiple of 512 ends with an empty frame and loses its final 512 bytes.
        const std::size_t size =
            last ? message.size() % BrokerProtocol::maxFrameBytes : BrokerProtocol::maxFrameBytes;
        const int sent = sendFrame(socket, message.data() + offset, size, last);
        if (sent != static_cast<int>(size))
        {
            OV_LOG(0, "zmq_send error[%u] errno[%d]", static_cast<unsigned int>(sent), errno);
            return false;
        }
        if (last)
            return true;
        offset += size;
    }
}

int StatusManagerProxy::sendFrame(void* socket, const char* bytes, std::size_t size, bool last)
{
    if (last && socket == mPostSocket)
        return mPostFlow->sendLastFrame(socket, bytes, size);
    return zmq_send(socket, bytes, size, last ? 0 : ZMQ_SNDMORE);
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
            // Also where it is in the middle of a message, the rest of which must not pass for a message of
            // its own.
            OV_LOG(2, "Read 0 bytes from StatusBroker");
            return discardRestOfMessage(socket);
        }
        if (static_cast<std::size_t>(size) > buffer.size())
        {
            // The size is the frame's, of which only a buffer's worth was copied.
            OV_LOG(0, "Frame of %d bytes on zmq socket exceeds %zu, message dropped", size, buffer.size());
            return discardRestOfMessage(socket);
        }
        received.append(buffer.data(), static_cast<std::size_t>(size));
    } while (!isLastFrame(socket));
    message = std::move(received);
    return true;
}

// Always false: the result of the receive that gave the message up.
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
    mPostFlow->flush(mPostSocket, timeoutMs);
    for (int attempt = 1; attempt <= maxAttempts; ++attempt)
    {
        if (zmq_setsockopt(mRequestSocket, ZMQ_RCVTIMEO, &timeoutMs, sizeof(timeoutMs)) != 0)
            OV_LOG(0, "Failed to zmq_setsockopt mNotifySocket"); // names the wrong socket; kept word for word
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
        OV_LOG(0, "Failed to send command [%s]", message.c_str());
}

// ------------------------------------------------------------------------------------------- notify thread

void StatusManagerProxy::processStatusMessages(void* context)
{
    if (!mNotifyThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManagerProxy, void*>(
            this, &StatusManagerProxy::processStatusMessages, context);
        return agent->send(&mNotifyThread);
    }
    OV_TRACE(7);
    OV_LOG(7, "Creating notify socket");
    mNotifySocket = zmq_socket(context, ZMQ_SUB);
    OV_LOG(7, "Connecting notify socket");
    if (zmq_connect(mNotifySocket, notifyEndpoint) != 0)
        OV_LOG(0, "Failed to connect mNotifySocket");
    OV_LOG(7, "Setting notify socket options");
    if (zmq_setsockopt(mNotifySocket, ZMQ_SUBSCRIBE, "", 0) != 0)
        OV_LOG(0, "Failed to zmq_setsockopt mNotifySocket");
    OV_LOG(7, "Beginning poll for messages on notify socket");
    while (!mShutdown.load(std::memory_order_relaxed))
    {
        OV_LOG(6, "Polling for messages on notify socket");
        std::string message;
        if (!receiveOnSocket(mNotifySocket, message))
            OV_LOG(2, "Failed to receive valid message from StatusBroker!");
        if (message.empty())
            OV_LOG(2, "Received empty notify message");
        else if (message == BrokerProtocol::syncWord)
            OV_LOG(6, "Received Sync on notify socket");
        else
            handleNotifyMessage(message);
    }
    zmq_close(mNotifySocket); // the handle stays as it is, see shutdown()
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
    {
        auto* agent = OV_NEW SyncEventAgent1<StatusManagerProxy, unsigned int>(
            this, &StatusManagerProxy::updateSystemTime, time);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeUpdateSystemTime(time));
}

void StatusManagerProxy::postStatus(StatusMap status)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManagerProxy, StatusMap>(
            this, &StatusManagerProxy::postStatus, std::move(status));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeMap(Key::postStatus, status));
}

void StatusManagerProxy::resetStatus(StatusKeys keys)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManagerProxy, StatusKeys>(
            this, &StatusManagerProxy::resetStatus, std::move(keys));
        return agent->send(&mThread);
    }
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
        auto* agent = OV_NEW AsyncEventAgent3<StatusManagerProxy, std::string, std::string, unsigned int>(
            this, &StatusManagerProxy::postEvent, std::move(name), std::move(value), delay);
        if (delay != 0)
            return mThread.postDelayed(agent, delay);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    sendPost(BrokerProtocol::writePostEvent(name, value));
}

void StatusManagerProxy::startTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManagerProxy, std::string>(
            this, &StatusManagerProxy::startTimer, std::move(name));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeText(Key::startTimer, name));
}

void StatusManagerProxy::stopTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManagerProxy, std::string>(
            this, &StatusManagerProxy::stopTimer, std::move(name));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeText(Key::stopTimer, name));
}

void StatusManagerProxy::resetTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManagerProxy, std::string>(
            this, &StatusManagerProxy::resetTimer, std::move(name));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeText(Key::resetTimer, name));
}

void StatusManagerProxy::restartTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManagerProxy, std::string>(
            this, &StatusManagerProxy::restartTimer, std::move(name));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeText(Key::restartTimer, name));
}

void StatusManagerProxy::setCounterValue(std::string name, uint32_t value)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent2<StatusManagerProxy, std::string, unsigned int>(
            this, &StatusManagerProxy::setCounterValue, std::move(name), value);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    sendPost(BrokerProtocol::writeSetCounterValue(name, value));
}

// ------------------------------------------------------------------------------------------------- queries
//
// An empty reply is logged and read on: it does not parse, or counts as 0.
//
// The operations look alike and are spelled out all the same: each traces and logs under its own signature,
// by which log readers find it.

StatusMap StatusManagerProxy::getClientInfo()
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent0<StatusManagerProxy, StatusMap>(
            this, &StatusManagerProxy::getClientInfo);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    std::string reply;
    if (!sendRequest(BrokerProtocol::writeGetClientInfo(), reply, noTimeLimit))
    {
        OV_LOG(0, "Failed to send getClientInfo request to StatusBroker");
        return {};
    }
    if (reply.empty())
        OV_LOG(2, "Empty response from StatusBroker!");
    std::optional<StatusMap> values = BrokerProtocol::readMapReply(reply);
    if (!values)
    {
        OV_LOG(0, "Failed to parse buf [%s]", reply.c_str());
        return {};
    }
    return std::move(*values);
}

std::string StatusManagerProxy::getClientInfoValue(const string& key)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManagerProxy, std::string, const std::string&>(
            this, &StatusManagerProxy::getClientInfoValue, key);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    OV_LOG(7, "Status value for status key[%s] requested", key.c_str());
    std::string reply;
    if (!sendRequest(BrokerProtocol::writeText(Key::getClientInfoValue, key), reply, noTimeLimit))
    {
        OV_LOG(0, "Failed to send getClientInfoValue [%s] request to StatusBroker", key.c_str());
        return {};
    }
    if (reply.empty())
        OV_LOG(2, "Empty response from StatusBroker!");
    std::optional<std::string> value = BrokerProtocol::readStatusValueReply(reply);
    if (!value)
    {
        OV_LOG(0, "Failed to parse buf [%s]", reply.c_str());
        return {};
    }
    OV_LOG(7, "Received requested status value, status[%s] = value[%s]", key.c_str(), value->c_str());
    return std::move(*value);
}

StatusMap StatusManagerProxy::getClientInfoValues(const StatusKeys& keys)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManagerProxy, StatusMap, const StatusKeys&>(
            this, &StatusManagerProxy::getClientInfoValues, keys);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    OV_LOG(7, "Status value for %u status keys requested", static_cast<unsigned int>(keys.size()));
    unsigned int index = 0;
    for (const std::string& key : keys)
        OV_LOG(7, "Key[%u] = [%s]", index++, key.c_str());
    std::string reply;
    if (!sendRequest(BrokerProtocol::writeList(Key::getClientInfoValues, keys), reply, noTimeLimit))
    {
        OV_LOG(0, "Failed to send getClientInfoValues request to StatusBroker");
        return {};
    }
    if (reply.empty())
        OV_LOG(2, "Empty response from StatusBroker!");
    std::optional<StatusMap> values = BrokerProtocol::readMapReply(reply);
    if (!values)
    {
        OV_LOG(0, "Failed to parse buf [%s]", reply.c_str());
        return {};
    }
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
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManagerProxy, uint64_t, const std::string&>(
            this, &StatusManagerProxy::getTimerElapsed, name);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    std::string reply;
    if (!sendRequest(BrokerProtocol::writeText(Key::getTimerElapsed, name), reply, noTimeLimit))
    {
        OV_LOG(0, "Failed to send getTimerElapsed request to StatusBroker");
        return 0;
    }
    if (reply.empty())
        OV_LOG(2, "Empty response from StatusBroker!");
    return BrokerProtocol::readTimerReply(reply);
}

uint64_t StatusManagerProxy::getTimerLastStarted(const string& name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManagerProxy, uint64_t, const std::string&>(
            this, &StatusManagerProxy::getTimerLastStarted, name);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    std::string reply;
    if (!sendRequest(BrokerProtocol::writeText(Key::getTimerLastStarted, name), reply, noTimeLimit))
    {
        OV_LOG(0, "Failed to send getTimerLastStarted request to StatusBroker");
        return 0;
    }
    if (reply.empty())
        OV_LOG(2, "Empty response from StatusBroker!");
    return BrokerProtocol::readTimerReply(reply);
}

uint32_t StatusManagerProxy::getCounterValue(const string& name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManagerProxy, unsigned int, const std::string&>(
            this, &StatusManagerProxy::getCounterValue, name);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    std::string reply;
    if (!sendRequest(BrokerProtocol::writeText(Key::getCounterValue, name), reply, noTimeLimit))
    {
        OV_LOG(0, "Failed to send getCounterValue request to StatusBroker");
        return 0;
    }
    if (reply.empty())
        OV_LOG(2, "Empty response from StatusBroker!");
    return BrokerProtocol::readCounterReply(reply);
}

uint32_t StatusManagerProxy::incrementCounter(const string& name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManagerProxy, unsigned int, const std::string&>(
            this, &StatusManagerProxy::incrementCounter, name);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    std::string reply;
    if (!sendRequest(BrokerProtocol::writeText(Key::incrementCounter, name), reply, noTimeLimit))
    {
        OV_LOG(0, "Failed to send incrementCounter request to StatusBroker");
        return 0;
    }
    if (reply.empty())
        OV_LOG(2, "Empty response from StatusBroker!");
    return BrokerProtocol::readCounterReply(reply);
}

bool StatusManagerProxy::sync(int timeoutMs)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManagerProxy, bool, int>(
            this, &StatusManagerProxy::sync, timeoutMs);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    OV_LOG(6, "Sending Sync on request socket and waiting for response");
    std::string reply;
    if (!sendRequest(BrokerProtocol::syncWord, reply, timeoutMs))
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
