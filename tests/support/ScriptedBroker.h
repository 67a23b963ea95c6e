#ifndef TESTS_SUPPORT_SCRIPTEDBROKER_H
#define TESTS_SUPPORT_SCRIPTEDBROKER_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

/// A broker's side of the three channels, in this process and controlled by the test. It answers as told,
/// late or never, with any frames, and records every frame that it receives.
///
/// Any thread may call any operation. At most one on a machine at a time: the ports are fixed.
class ScriptedBroker
{
public:
    /// One message, as a list of frames.
    using Frames = std::vector<std::string>;
    /// Returns the frames of the answer, or nothing to stay silent (see reply()). Runs on the broker's
    /// thread.
    using Answer = std::function<std::optional<Frames>(const std::string& request)>;

    enum class FirstAnswer
    {
        Held, ///< until the post channel is up, so that a client's first posts arrive
        AtOnce,
    };

    enum class Posts
    {
        Taken,
        NotTaken, ///< another program or test may take the post port
    };

    /// By default it answers "Sync" with "SyncAck" and all other requests with "{}".
    /// @throws std::runtime_error when a port is taken.
    explicit ScriptedBroker(FirstAnswer firstAnswer = FirstAnswer::Held, Posts posts = Posts::Taken);
    ~ScriptedBroker();

    ScriptedBroker(const ScriptedBroker&) = delete;
    ScriptedBroker& operator=(const ScriptedBroker&) = delete;

    void answerWith(Answer answer);
    void answerWith(Frames frames);
    void keepSilent();

    /// Answers the oldest request that is still unanswered.
    void reply(Frames frames);

    /// Sends a message on the notify channel. It is lost without a subscriber.
    void publish(Frames frames);
    void publish(const std::string& text) { publish(Frames{text}); }

    /// The messages received so far, as lists of frames. They leave out the "Sync" that a client posts at its
    /// start: whether it arrives depends on timing.
    std::vector<Frames> requests() const;
    std::vector<Frames> posts() const;

    /// When the last post was received.
    std::chrono::steady_clock::time_point lastPostTime() const;

    // Each returns false at the deadline.
    bool waitForRequests(std::size_t count) const;
    bool waitForPosts(std::size_t count) const;
    bool waitForPost(const std::string& text) const;
    bool waitForSubscriber(std::size_t count = 1) const; ///< waits for this many subscribers in all

private:
    struct Sockets;
    struct Request
    {
        Frames envelope;
        std::string text;
    };

    void run();
    void receiveRequests();
    void receivePosts();
    void receiveSubscriptions();
    void receiveHandshakes();
    void answerHeld();
    void sendQueued();
    void answer(Request request);
    void sendReply(const Request& request, const Frames& frames);
    template <class Condition>
    bool waitUntil(Condition condition) const;

    std::unique_ptr<Sockets> mSockets; // used by the broker's thread
    std::vector<Request> mHeld;        // used by the broker's thread
    std::vector<std::string> mKnown;   // identities that got an answer; used by the broker's thread
    std::deque<Request> mUnanswered;   // used by the broker's thread
    std::size_t mHandshakes = 0;       // used by the broker's thread
    std::chrono::steady_clock::time_point mLastHandshake;
    const FirstAnswer mFirstAnswer;

    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::shared_ptr<const Answer> mAnswer;
    std::deque<Frames> mReplies;
    std::deque<Frames> mPublications;
    std::vector<Frames> mRequests;
    std::vector<Frames> mPosts;
    std::chrono::steady_clock::time_point mLastPost;
    std::size_t mSubscribers = 0;
    bool mStop = false;

    std::thread mThread;
};

#endif
