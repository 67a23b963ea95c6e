#ifndef BRIDGE_BROKERPOSTER_H
#define BRIDGE_BROKERPOSTER_H

#include <functional>
#include <optional>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "daemon/Clock.h"
#include "protocol/ClientDocuments.h"

/// Posts to the broker, and learns what has become of it. One batch at a time; the others wait. Never waits
/// itself: the caller polls and calls work().
///
/// A post can be lost before the broker's subscription has arrived, and when the broker ends. So each batch
/// is between two barriers. After the second one, the poster asks for the present values.
class BrokerPoster
{
public:
    struct Batch
    {
        BrokerProtocol::Members values;
        std::vector<std::pair<std::string, std::string>> events;

        bool isEmpty() const { return values.empty() && events.empty(); }
    };

    /// Returns what is to be posted. Called when the broker is there, so nothing is decided too early.
    using Next = std::function<Batch(TimePoint now)>;

    /// Called when the broker has taken a batch.
    /// @param values the present values of the batch's keys; keys that the broker refused are missing or
    /// differ
    using Taken = std::function<void(const BrokerProtocol::Members& values)>;

    /// Throws zmq::error_t.
    BrokerPoster(Next next, Taken taken);

    /// Posts the next batch. Only when isIdle().
    void post(TimePoint now) { begin(now); }
    bool isIdle() const { return mStage == Stage::Idle; }

    /// What to poll for reading; -1: nothing. It becomes readable only once: call work() until hasMore() is
    /// false before the next poll.
    int descriptor();
    void work(TimePoint now);
    bool hasMore();

    /// When to call work(), whatever the poll says; TimePoint::max(): not at all.
    TimePoint due() const { return mStage == Stage::Idle ? TimePoint::max() : mDeadline; }

private:
    enum class Stage
    {
        Idle,
        Opening,    ///< the barrier before the posts
        Confirming, ///< the barrier behind them
        Reading,
    };

    void begin(TimePoint now);
    void take(const std::string& answer, TimePoint now);
    void ask(Stage stage, const std::string& request, TimePoint now);
    void send(const std::string& message);
    void sendBatch(TimePoint now);
    void askForValues(TimePoint now);
    void rest();

    Next mNext;
    Taken mTaken;
    zmq::context_t mContext;
    zmq::socket_t mPosts;
    std::optional<zmq::socket_t> mRequest;
    Stage mStage = Stage::Idle;
    std::optional<Batch> mBatch; // nothing before the broker is there
    TimePoint mDeadline{};
};

#endif
