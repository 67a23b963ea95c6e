#ifndef STATUSMANAGER_STATUSMANAGERPROXY_H
#define STATUSMANAGER_STATUSMANAGERPROXY_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

#include "statusmanager/StatusManager.h"

class PostFlow;

/// The production manager: a client of the broker, over three ZeroMQ sockets on the loopback interface. Posts
/// go to the broker and are not kept here. Queries ask the broker. The broker's notifications reach the
/// listeners through the registry of the base class.
///
/// Queries and sync() wait for the broker's answer; so does registerForStatus(), on the manager's thread.
/// Only sync() can have a time limit. While no broker answers, the others block, and later calls wait their
/// turn. A query first waits at most 80 ms for posts to leave this process.
///
/// The destructor of a derived class must stop the manager's thread first, as for StatusManager. That drops
/// everything still queued. So this class's destructor can no longer send queued posts or pass on the last
/// notification. If posts matter, the derived destructor calls sync() before `mThread.stop()`.
class OV_EXPORT StatusManagerProxy : public StatusManager
{
public:
    /// Connects, and blocks until a broker has answered. If the sockets cannot be set up, the constructor
    /// logs that and returns; every later send then fails and is logged.
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
    /// Called from another thread, the event leaves this process `delay` milliseconds later. On the manager's
    /// thread the event is sent at once and the delay is ignored. The broker never sees the delay.
    void postEvent(std::string name, std::string value, uint32_t delay) override;
    /// Returns true when all earlier posts of this process have reached the broker and taken effect. It first
    /// waits for posts to leave this process: at most a second, and with a time limit no longer than the
    /// limit or 80 ms, whichever is longer. Waiting beyond 80 ms reduces the time for the answer.
    ///
    /// With a time limit, returns at most 100 ms after the limit, counted from the start of its turn on the
    /// manager's thread. One exception: if the broker's answers are empty or too long, it is asked 20 times,
    /// with pauses of 10 ms. A time-out leaves the request socket in the middle of an exchange: later queries
    /// and syncs of this process fail.
    bool sync(int timeoutMs) override;

    /// Returns how many posts of this process were lost inside it: the broker did not take posts as fast as
    /// they were made, or there was no memory to send one. sync() does not report these. A post counts
    /// before a later query or sync() returns. Any thread, while the manager lives.
    uint64_t lostPosts() const;

    /// Ends the notify loop and closes everything. The loop reads its stop flag once per message, so the
    /// destructor waits until the broker next publishes something. Until then the manager continues to work:
    /// it sends earlier posts, and the last notification reaches the listeners. Delayed events are dropped.
    /// The destructor waits behind everything already queued, so a request to a silent broker blocks it for
    /// ever.
    ~StatusManagerProxy() override;

protected:
    /// Creates the context, the post socket and the request socket, syncs with the broker and queues the
    /// notify loop. Any thread; runs on the manager's thread, and waits.
    void initSockets();

    /// Stops the notify loop and closes the sockets and the context. Any thread; runs on the notify thread,
    /// and waits. The manager must not be used afterwards. Work still queued on the manager's thread would
    /// use the sockets during the close. So a derived class must call `mThread.stop()` first, unless nothing
    /// is queued.
    void shutdown();

    /// Sends one whole message. On failure, logs a line and returns false.
    bool sendOnSocket(void* socket, const std::string& message);
    /// Receives one whole message, which replaces `message`. On failure, logs a line, leaves `message`
    /// unchanged and returns false.
    bool receiveOnSocket(void* socket, std::string& message);

    /// Sends a request and waits at most `timeoutMs` milliseconds for the answer (-1: no limit). Returns
    /// false if there was no answer. Manager's thread only.
    bool sendRequest(const std::string& request, std::string& reply, int timeoutMs);
    /// Sends a post; a failure is logged. Manager's thread only.
    void sendPost(std::string message);

    /// Receives notifications until the manager is shut down. Any thread; runs on the notify thread,
    /// [queued].
    void processStatusMessages(void* context);
    /// Passes one notification to the listeners. Notify thread only.
    void handleNotifyMessage(const std::string& message);

    // Raw handles, because the order of closing, and one repeated close, are required.
    void* mZmqContext = nullptr;        ///< Owns all three sockets.
    void* mPostSocket = nullptr;        ///< Manager's thread.
    void* mNotifySocket = nullptr;      ///< Notify thread.
    void* mRequestSocket = nullptr;     ///< Manager's thread.
    Orvane::EventThread mNotifyThread;  ///< Receives the notifications.
    std::atomic<bool> mShutdown{false}; ///< Ends the notify loop, which reads it once per message.
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
    /// Asks the broker and reads the answer; logs in the query's name. Returns Answer() when there is none.
    template <class Answer>
    Answer ask(const Query& query, Answer (*read)(const std::string& reply));

    /// Logs the number of dropped posts, if the end of dropping has not been logged yet.
    struct PostFlowEnd
    {
        void operator()(PostFlow* flow) const;
    };

    std::unique_ptr<PostFlow, PostFlowEnd> mPostFlow; ///< Manager's thread.
    bool mIsDroppingWatched = false;                  ///< Manager's thread.
    std::atomic<bool> mEnding{false};                 ///< Set before mShutdown: the sockets will be closed.
    bool mNotifySocketLeft = false;                   ///< Left open by the notify loop. Notify thread.
};

#endif
