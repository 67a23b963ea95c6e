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

/// The broker's side of the three channels, in this process and under a test's control: it answers what it is
/// told to, late or never, with any frames, and remembers every frame it received.
///
/// Any thread may call any operation. At most one on a machine at a time: the ports are fixed.
class ScriptedBroker
{
public:
    /// One message, frame by frame.
    using Frames = std::vector<std::string>;
    /// Returns the frames to answer with; nothing keeps silent (see reply()). Runs on the broker's thread.
    using Answer = std::function<std::optional<Frames>(const std::string& request)>;

    enum class FirstAnswer
    {
        Held, ///< until the post channel stands, so that a client's first posts arrive
        AtOnce,
    };

    enum class Posts
    {
        Taken,
        NotTaken, ///< the post port is left to somebody else
    };

    /// At first, "Sync" is answered with "SyncAck" and everything else with "{}".
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

    /// Sends one message on the notify channel; lost if nobody has subscribed.
    void publish(Frames frames);
    void publish(const std::string& text) { publish(Frames{text}); }

    /// The messages that came in so far, frame by frame. The "Sync" that a client posts at start-up is left
    /// out: whether it arrives is a matter of time.
    std::vector<Frames> requests() const;
    std::vector<Frames> posts() const;

    /// The time at which the last post came in.
    std::chrono::steady_clock::time_point lastPostTime() const;

    // Each is false at the deadline.
    bool waitForRequests(std::size_t count) const;
    bool waitForPosts(std::size_t count) const;
    bool waitForPost(const std::string& text) const;
    bool waitForSubscriber(std::size_t count = 1) const; ///< until so many have come

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

    std::unique_ptr<Sockets> mSockets; // the broker's thread
    std::vector<Request> mHeld;        // the broker's thread
    std::vector<std::string> mKnown;   // identities that have been answered; the broker's thread
    std::deque<Request> mUnanswered;   // the broker's thread
    std::size_t mHandshakes = 0;       // the broker's thread
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
