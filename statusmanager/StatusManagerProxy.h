#ifndef STATUSMANAGER_STATUSMANAGERPROXY_H
#define STATUSMANAGER_STATUSMANAGERPROXY_H

#include <atomic>
#include <chrono>
#include <memory>

#include "statusmanager/StatusManager.h"

class PostFlow;

/// The production manager: a client of the broker process, over three ZeroMQ sockets on the loopback
/// interface. Posts go to the broker and are not kept here; queries ask the broker; the broker's
/// notifications reach the listeners through the base's registry.
///
/// A query or sync() on any thread, and registerForStatus() on the manager's, wait for the broker's answer;
/// apart from sync() they do so without limit, so while no broker answers, they block, and what is called
/// after them waits its turn. A query first waits for posts to leave this process, at most 80 ms.
///
/// The destructor of a class derived from this one stops the manager's thread first, too. That drops what is
/// still queued: the promise of this class's destructor, that queued posts are sent and the last notification
/// reaches its listeners, is given up. If posts matter, it calls sync() before `mThread.stop()`.
class OV_EXPORT StatusManagerProxy : public StatusManager
{
public:
    /// Connects, and blocks until a broker has answered. Reports no failure: if the sockets cannot be set up,
    /// that is logged, and so is every later send.
    StatusManagerProxy();

    void updateSystemTime(uint32_t time) override;
    StatusMap getClientInfo() override;
    std::string getClientInfoValue(const std::string& key) override;
    StatusMap getClientInfoValues(const StatusKeys& keys) override;
    void startTimer(std::string name) override;
    void stopTimer(std::string name) override;
    void resetTimer(std::string name) override;
    void restartTimer(std::string name) override;
    uint64_t getTimerElapsed(const std::string& name) override;
    uint64_t getTimerLastStarted(const std::string& name) override;
    uint32_t getCounterValue(const std::string& name) override;
    uint32_t incrementCounter(const std::string& name) override;
    void setCounterValue(std::string name, uint32_t value) override;
    using StatusManager::postStatus;
    void postStatus(StatusMap status) override;
    using StatusManager::resetStatus;
    void resetStatus(StatusKeys keys) override;
    /// From another thread, the event leaves this process `delay` milliseconds later; on the manager's thread
    /// it is sent at once and the delay ignored. The broker never sees the delay.
    void postEvent(std::string name, std::string value, uint32_t delay) override;
    /// Posts of this process that were made before have reached the broker and taken effect when this returns
    /// true. It waits for posts to leave this process for a second at most; with a time limit, no longer than
    /// that limit or 80 ms, whichever is longer. Time beyond 80 ms is taken from the time for the answer.
    ///
    /// With a time limit, returns within that time and 100 ms, counted from when its turn on the manager's
    /// thread comes. One exception: a broker that gives empty or overlong answers is asked 20 times, with
    /// pauses of 10 ms. A call that timed out leaves the request socket in the middle of an exchange: later
    /// queries and syncs of this process fail.
    bool sync(int timeoutMs) override;

    /// Ends the notify loop and closes everything. The loop looks at its stop flag once per message, so this
    /// waits until the broker next publishes something. Until then the manager works on: what was posted
    /// before is sent, and that last notification reaches the listeners. Delayed events are dropped. It waits
    /// behind all that is queued already: a request whose broker is silent holds it up without end.
    ~StatusManagerProxy() override;

protected:
    /// Creates the context, the post and the request socket, shakes hands with the broker and queues the
    /// notify loop. Runs on the manager's thread; waits.
    void initSockets();

    /// Stops the notify loop and closes the sockets and the context. Runs on the notify thread; waits. The
    /// manager must not be used afterwards. Work that is still queued on the manager's thread would use the
    /// sockets while they are closed: a derived class that calls this calls `mThread.stop()` first, unless
    /// nothing is queued.
    void shutdown();

    /// Sends one whole message; false, and a log line, when it did not go through.
    bool sendOnSocket(void* socket, const std::string& message);
    /// Receives one whole message, which replaces `message`; false, and a log line, when it did not come
    /// through: then `message` is untouched.
    bool receiveOnSocket(void* socket, std::string& message);

    /// Sends a request and waits for the answer at most `timeoutMs` milliseconds (-1: no limit); false when
    /// there was none. Manager's thread.
    bool sendRequest(const std::string& request, std::string& reply, int timeoutMs);
    /// Sends a post; a failure is logged. Manager's thread.
    void sendPost(std::string message);

    /// Receives notifications until the manager is shut down. Runs on the notify thread, to which it marshals
    /// itself.
    void processStatusMessages(void* context);
    /// Hands one notification to the listeners. Notify thread.
    void handleNotifyMessage(const std::string& message);

    // Raw handles: the order in which they are closed, and one repeated close, are fixed.
    void* mZmqContext = nullptr;        ///< Of all three sockets.
    void* mPostSocket = nullptr;        ///< Manager's thread.
    void* mNotifySocket = nullptr;      ///< Notify thread.
    void* mRequestSocket = nullptr;     ///< Manager's thread.
    Orvane::EventThread mNotifyThread;  ///< Receives the notifications.
    std::atomic<bool> mShutdown{false}; ///< Ends the notify loop, which polls it, relaxed.
    bool mSocketsClosed = false;        ///< Notify thread.

private:
    struct Query;

    void requestEnd();
    void endCalls();
    void passBy();
    void closeSockets();
    bool discardRestOfMessage(void* socket);
    std::chrono::milliseconds awaitPosts(std::chrono::milliseconds limit);
    void logDropping();
    void watchDropping();
    void lookForEndOfDropping();
    /// Asks the broker and reads the answer, logging in the query's name; Answer() when there is none.
    template <class Answer>
    Answer ask(const Query& query, Answer (*read)(const std::string& reply));

    /// Logs what was dropped, if the end of dropping has not been logged yet.
    struct PostFlowEnd
    {
        void operator()(PostFlow* flow) const;
    };

    std::unique_ptr<PostFlow, PostFlowEnd> mPostFlow; ///< Manager's thread.
    bool mIsDroppingWatched = false;                  ///< Manager's thread.
    std::atomic<bool> mEnding{false}; ///< Set before mShutdown by all who will close the sockets.
    bool mNotifySocketLeft = false;   ///< The notify loop has ended and not closed it. Notify thread.
};

#endif
