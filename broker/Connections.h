#ifndef BROKER_CONNECTIONS_H
#define BROKER_CONNECTIONS_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "broker/Guard.h"
#include "broker/NotifyPort.h"
#include "broker/PortEnvironment.h"
#include "broker/PostPort.h"
#include "broker/RequestPort.h"
#include "protocol/Client.h"

/// All connections of the broker, on its three ports, and who is at their other ends.
class Connections
{
public:
    /// The broker's part.
    struct Handlers
    {
        PostPort::OnPost onPost;
        /// A client that has posted something. It can come back unless it has gone before it was known.
        /// It may have ended as early as `since`.
        std::function<void(Posters::Id client, bool canComeBack, TimePoint since)> onPosterGone;
        RequestPort::OnRequest onRequest;
        RequestPort::OnClose onRequesterGone;
    };

    /// All must outlive it.
    Connections(Poller& poller, MemoryBudget& budget, const Limits& limits, Refusals& refusals,
                std::unique_ptr<const Policy> policy, DeviceState& state, Handlers handlers);

    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;

    PostPort& posts() { return mPosts; }
    RequestPort& requests() { return mRequests; }
    NotifyPort& notify() { return mNotify; }
    const PostPort& posts() const { return mPosts; }
    const RequestPort& requests() const { return mRequests; }
    const NotifyPort& notify() const { return mNotify; }

    /// From now on, connections arrive.
    void listen();

    /// Something can be read from a connection, or written to it, or it has ended.
    void serve(Connection& connection, uint32_t what, TimePoint now);

    /// Calls act(Connection&) for each.
    template <class Act>
    void forEach(Act&& act) const
    {
        for (const auto& peer : mPosts.peers())
            act(*peer);
        for (const auto& peer : mRequests.peers())
            act(*peer);
        for (const auto& peer : mNotify.peers())
            act(*peer);
    }

    /// The client is connected for posts.
    bool isHere(Posters::Id client) const;

    /// The client that has come back in the place of one that has gone, entered as one that posts: nobody if
    /// none has, nothing while its process is looked for. A client of a service is succeeded by any other of
    /// the same service and user, and one without a service by its own process only. Where the broker may not
    /// see the processes of the user, those are taken to be the same.
    std::optional<Posters::Id> successorOf(Posters::Id gone, TimePoint since);

    /// Enters the client of a connection as one that posts, once. Its process is looked for.
    void introduce(PostConnection& connection)
    {
        if (connection.poster == Posters::nobody)
            enterPoster(connection);
    }

    /// Asks the post connections that may belong to the client of this request connection whether something
    /// is under way, as far as the barrier does not find out. The client's process is looked for, to tell
    /// better next time.
    /// @returns those that are to be waited for; they outlive the connections
    std::vector<std::shared_ptr<const OwnProbe>> askOwnPosters(RequestConnection& client, uint64_t barrier,
                                                               TimePoint now);

    void closeForMemory(Connection& connection);

    /// Destroys those that were closed. Nothing may point to them any more.
    void collect();

    // ---- What clients may do.

    Guard& guard() { return mGuard; }
    const Guard& guard() const { return mGuard; }

    /// Puts another policy in force, for those that are connected, too. See Guard::setPolicy().
    void setPolicy(std::unique_ptr<const Policy> policy, TimePoint now);

    // ---- Who uses the broker.

    /// The answer that tells who is connected, as far as is known by now, the oldest first. From now on,
    /// their processes are looked for: soon it may tell more.
    void appendClients(std::string& to, TimePoint now);

    /// When doWhatIsDue() is to be called, to look for processes.
    TimePoint due() const;
    void doWhatIsDue(TimePoint now);

    /// Has lines of the log written that wait for processes: the broker ends.
    void finish();

private:
    void close(Connection& connection);
    void enterPoster(PostConnection& connection);
    void forgetPoster(PostConnection& connection);
    void describePoster(PostConnection& connection);
    std::vector<BrokerProtocol::Client> clients(TimePoint now);
    std::optional<std::string> nameOf(Connection& connection);

    Refusals& mRefusals;
    DeviceState& mState;
    Identities mIdentities;
    Guard mGuard;
    const PortEnvironment mEnvironment;
    RequestPort mRequests;
    NotifyPort mNotify;
    PostPort mPosts;
    const std::function<void(Posters::Id, bool, TimePoint)> mOnPosterGone;
};

#endif
