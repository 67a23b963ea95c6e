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

/// All connections of the broker, on its three ports, and the identities of their clients.
class Connections
{
public:
    /// The broker's reactions to events of connections.
    struct Handlers
    {
        PostPort::OnPost onPost;
        /// The client has posted, and its connection has gone. It cannot come back if it left before it was
        /// identified. It may have ended as early as `since`.
        std::function<void(Posters::Id client, bool canComeBack, TimePoint since)> onPosterGone;
        RequestPort::OnRequest onRequest;
        RequestPort::OnClose onRequesterGone;
    };

    /// All referenced objects must outlive this one.
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

    /// Connections are accepted from now on.
    void listen();

    /// Tells the ports how many of their connections have something to say.
    /// @param events reported by the poller; 0: the round's events are handled
    void noteCrowds(std::size_t events);

    /// Something can be read from a connection, or written to it, or it has ended.
    void serve(Connection& connection, uint32_t what, TimePoint now);

    /// Calls act(Connection&) for each connection.
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

    /// Whether the client has a post connection.
    bool isHere(Posters::Id client) const;

    /// The client that has come back in the place of a client that has gone, entered as a poster. Returns
    /// nobody if none has, and nothing while its process is being looked for. A client of a service may be
    /// replaced by any other client of the same service and user. A client without a service may only be
    /// replaced by its own process. Where the broker cannot see a user's processes, it takes them to be the
    /// same.
    std::optional<Posters::Id> successorOf(Posters::Id gone, TimePoint since);

    /// Enters the client of a connection as a poster, once. Starts the search for its process.
    void introduce(PostConnection& connection)
    {
        if (connection.poster == Posters::nobody)
            enterPoster(connection);
    }

    /// Opens a barrier behind everything that these clients have posted by now; see PostPort. Starts the
    /// search for unknown processes.
    uint64_t openBarrier(const std::vector<RequestConnection*>& clients, bool isSync, TimePoint now);

    /// Asks the post connections that may belong to the same client whether a post is under way, where the
    /// barrier does not find out. Starts the search for the client's process, to choose better next time.
    /// @returns the probes to wait for; they outlive the connections
    std::vector<std::shared_ptr<const OwnProbe>> askOwnPosters(RequestConnection& client, uint64_t barrier,
                                                               TimePoint now);

    /// Until when a request waits at most for its client's posts before the barrier; TimePoint::min() if they
    /// have come. It does not wait for posts of another process. Starts the search for unknown processes.
    /// @param opened when the barrier opened
    TimePoint endOfWait(RequestConnection& client, uint64_t barrier, bool isSync, TimePoint opened);

    /// Whether such posts had arrived before the barrier, and are still unread.
    bool isUnreadBefore(const RequestConnection& client, uint64_t barrier);

    /// Whether the client has a post connection on which posts can arrive, as far as the broker knows by now.
    /// Starts the search for unknown processes; while it lasts, the client has none.
    bool canPost(RequestConnection& client, TimePoint now);

    void closeForMemory(Connection& connection);

    /// Destroys closed connections. Nothing may point to them any more.
    void collect();

    // ---- What clients may do.

    Guard& guard() { return mGuard; }
    const Guard& guard() const { return mGuard; }

    /// Puts another policy in force, also for existing connections. See Guard::setPolicy().
    void setPolicy(std::unique_ptr<const Policy> policy, TimePoint now);

    // ---- Which clients use the broker.

    /// Appends the answer that lists the connected clients, oldest first, as far as they are identified.
    /// Starts the search for their processes, so a later answer may hold more.
    void appendClients(std::string& to, TimePoint now);

    /// When to call doWhatIsDue(), which looks for processes.
    TimePoint due() const;
    void doWhatIsDue(TimePoint now);

    /// The broker ends: writes the log lines that wait for processes.
    void finish();

private:
    void close(Connection& connection);
    void seekBoth(Identity& one, Identity& other);
    bool mayBeOf(const RequestConnection& client, const PostConnection& poster);
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
