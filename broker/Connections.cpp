#include "broker/Connections.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "broker/peer/SameProcess.h"
#include "daemon/SystemClock.h"
#include "protocol/BrokerDocuments.h"

namespace
{

using BrokerProtocol::Client;

// How long a log line waits for the search for a process.
constexpr std::chrono::seconds longestSearch{2};

// The broker reads a client's last posts before it notices the client's end. So it may notice the end this
// much after the client has returned.
constexpr std::chrono::milliseconds longestEnding{100};

// The most post connections that are probed for one "Sync".
constexpr std::size_t mostOwnPosters = 16;

// Keeps the connections that most likely belong to a client: it opens its connections at about the same time.
void keepNearest(std::vector<PostConnection*>& posters, std::size_t most, uint64_t number)
{
    if (posters.size() <= most)
        return;
    const auto distance = [=](const PostConnection* poster)
    { return std::max(poster->number, number) - std::min(poster->number, number); };
    const auto end = posters.begin() + static_cast<std::ptrdiff_t>(most);
    std::nth_element(posters.begin(), end, posters.end(),
                     [&](const auto* one, const auto* other) { return distance(one) < distance(other); });
    posters.erase(end, posters.end());
}

BrokerProtocol::Poster posterOf(const Identity& identity)
{
    BrokerProtocol::Poster poster;
    poster.user = identity.user;
    poster.uid = identity.owner.uid();
    poster.service = identity.service;
    poster.program = identity.program;
    poster.pid = static_cast<uint32_t>(identity.pid);
    return poster;
}

Client begin(const Identity& identity)
{
    Client client;
    client.user = identity.user;
    client.uid = identity.owner.uid();
    client.service = identity.service;
    client.pid = static_cast<uint32_t>(identity.pid);
    client.program = identity.program;
    client.isShared = identity.isShared;
    client.since = UINT64_MAX;
    return client;
}

} // namespace

Connections::Connections(Poller& poller, MemoryBudget& budget, const Limits& limits, Refusals& refusals,
                         std::unique_ptr<const Policy> policy, DeviceState& state, Handlers handlers)
    : mRefusals(refusals), mState(state),
      mGuard(mIdentities, refusals, std::move(policy)), mEnvironment{poller, mIdentities, budget,
                                                                     limits, refusals,    mGuard},
      mRequests(mEnvironment, state, std::move(handlers.onRequest), std::move(handlers.onRequesterGone)),
      mNotify(mEnvironment, state), mPosts(mEnvironment, std::move(handlers.onPost)),
      mOnPosterGone(std::move(handlers.onPosterGone))
{
    refusals.setDescribe([this](Refused& source) { return nameOf(static_cast<Connection&>(source)); });
}

void Connections::listen()
{
    // In this order, a client whose request arrives has been able to connect its post socket before.
    mPosts.listen();
    mNotify.listen();
    mRequests.listen();
}

void Connections::noteCrowds(std::size_t events)
{
    std::size_t requesters = 0;
    std::size_t subscribers = 0;
    for (std::size_t index = 0; index < events; ++index)
    {
        const Poller::Event event = mEnvironment.poller.event(index);
        if (event.owner->pollableKind() != Pollable::Kind::Connection ||
            (event.what & (EPOLLIN | EPOLLHUP)) != EPOLLIN)
            continue;
        const Handshake::Kind kind = static_cast<const Connection&>(*event.owner).kind();
        requesters += kind == Handshake::Kind::Request ? 1U : 0U;
        subscribers += kind == Handshake::Kind::Notify ? 1U : 0U;
    }
    mRequests.setCrowd(requesters); // posts have turns of their own
    mNotify.setCrowd(subscribers);
}

void Connections::serve(Connection& connection, uint32_t what, TimePoint now)
{
    // A peer that is gone takes no answers and no notifications, but its posts count. Thus a crowd that asks
    // and vanishes costs little.
    if ((what & EPOLLHUP) != 0 && connection.kind() != Handshake::Kind::Post)
        return close(connection);
    switch (connection.kind())
    {
    case Handshake::Kind::Post:
        return mPosts.serve(static_cast<PostConnection&>(connection), what);
    case Handshake::Kind::Request:
        return mRequests.serve(static_cast<RequestConnection&>(connection), what, now);
    case Handshake::Kind::Notify:
        return mNotify.serve(static_cast<NotifyConnection&>(connection), what, now);
    }
}

void Connections::closeForMemory(Connection& connection)
{
    const Refusals::From from(mRefusals, connection);
    mRefusals.report(Refusal::Memory, "Closing the connection that holds the most memory, %zu of %zu bytes",
                     connection.accounted, mEnvironment.budget.held());
    switch (connection.kind())
    {
    case Handshake::Kind::Post:
        return mPosts.closeForMemory(static_cast<PostConnection&>(connection));
    case Handshake::Kind::Request:
        return mRequests.close(static_cast<RequestConnection&>(connection));
    case Handshake::Kind::Notify:
        return mNotify.closeForMemory(static_cast<NotifyConnection&>(connection), Clock::now());
    }
}

void Connections::close(Connection& connection)
{
    switch (connection.kind())
    {
    case Handshake::Kind::Post:
        return mPosts.close(static_cast<PostConnection&>(connection));
    case Handshake::Kind::Request:
        return mRequests.close(static_cast<RequestConnection&>(connection));
    case Handshake::Kind::Notify:
        return mNotify.close(static_cast<NotifyConnection&>(connection));
    }
}

void Connections::setPolicy(std::unique_ptr<const Policy> policy, TimePoint now)
{
    const std::string before = mGuard.policy().describe();
    mGuard.setPolicy(std::move(policy));
    std::vector<Connection*> refused;
    forEach(
        [&](Connection& connection)
        {
            if (!mGuard.admit(connection))
                refused.push_back(&connection);
        });
    for (Connection* connection : refused)
        close(*connection);
    mNotify.takeOverRights(mGuard.policy().describe() != before, now);
}

void Connections::collect()
{
    const auto tell = [this](const Connection& connection)
    { mRefusals.tell(connection, connection.identity.text()); };
    mPosts.collect(
        [&](PostConnection& connection)
        {
            tell(connection);
            forgetPoster(connection);
        });
    mRequests.collect(tell);
    mNotify.collect(tell);
}

// Returns nothing while the process is being looked for.
std::optional<std::string> Connections::nameOf(Connection& connection)
{
    mIdentities.seek(connection.identity);
    if (connection.identity.search == Identity::Search::UnderWay)
        return std::nullopt;
    return connection.identity.text();
}

TimePoint Connections::due() const
{
    const auto [source, since] = mRefusals.waitingLongest();
    return std::min(mIdentities.due(), source == nullptr ? TimePoint::max() : since + longestSearch);
}

void Connections::finish()
{
    forEach([this](const Connection& connection) { mRefusals.tell(connection, connection.identity.text()); });
}

void Connections::doWhatIsDue(TimePoint now)
{
    for (auto [source, since] = mRefusals.waitingLongest(); source != nullptr && since + longestSearch <= now;
         std::tie(source, since) = mRefusals.waitingLongest())
        mRefusals.tell(*source, static_cast<Connection*>(source)->identity.text());
    if (mIdentities.due() > now)
        return;
    std::map<uint64_t, Processes::Found> found;
    for (Processes::Found& each : mIdentities.seekOn(now))
        found[each.inode] = std::move(each);
    if (found.empty())
        return;
    std::set<Posters::Id> known;
    forEach(
        [&](Connection& connection)
        {
            const auto about = found.find(connection.identity.owner.inode());
            if (about == found.end())
                return;
            Identities::settle(connection.identity, about->second);
            mRefusals.tell(connection, connection.identity.text());
            if (connection.kind() != Handshake::Kind::Post)
                return;
            describePoster(static_cast<PostConnection&>(connection));
            known.insert(static_cast<PostConnection&>(connection).poster);
        });
    mState.notePosters(known);
}

// The search may also have found the service only now.
void Connections::describePoster(PostConnection& connection)
{
    mIdentities.completeService(connection.identity);
    mState.posters().describe(connection.poster, posterOf(connection.identity));
}

void Connections::forgetPoster(PostConnection& connection)
{
    if (connection.poster == Posters::nobody)
        return;
    if (connection.identity.isServiceOpen)
    {
        describePoster(connection);
        mState.notePosters({connection.poster});
    }
    const Identity& identity = connection.identity;
    mOnPosterGone(connection.poster,
                  !identity.service.empty() || identity.search != Identity::Search::CutShort,
                  connection.backlog.earliestEnd(Clock::now(), mPosts.looks()));
    mState.posters().release(std::exchange(connection.poster, Posters::nobody));
}

bool Connections::isHere(Posters::Id client) const
{
    return std::any_of(mPosts.peers().begin(), mPosts.peers().end(),
                       [=](const auto& peer) { return peer->poster == client; });
}

std::optional<Posters::Id> Connections::successorOf(Posters::Id gone, TimePoint since)
{
    const BrokerProtocol::Poster poster = mState.posters().at(gone);
    std::optional<std::set<uint64_t>> sockets;
    // Finding the process of a socket takes long; checking whether this process has the socket does not.
    const auto hasSocket = [&](const Identity& identity)
    {
        if (!sockets)
            sockets = mIdentities.socketsOf(static_cast<pid_t>(poster.pid), poster.program);
        return sockets->count(identity.owner.inode()) != 0;
    };
    bool isSearching = false;
    for (const auto& peer : mPosts.peers())
    {
        mIdentities.completeService(peer->identity);
        const Identity& identity = peer->identity;
        if (!peer->isOpen() || identity.owner.uid() != poster.uid || identity.service != poster.service)
            continue;
        introduce(*peer);
        const bool isNew = peer->acceptedAt() + longestEnding > since;
        const bool isOfService = !poster.service.empty();
        const bool isUnseen =
            poster.pid == 0 && identity.search == Identity::Search::Over && identity.pid == 0;
        const bool isUncertain = identity.search != Identity::Search::Over || identity.isShared;
        const bool isItself = isOfProcess(identity, static_cast<pid_t>(poster.pid), poster.program) ||
                              (!isOfService && poster.pid != 0 && isUncertain && hasSocket(identity));
        if (isItself || (isNew && (isOfService || isUnseen)))
            return peer->poster;
        isSearching = isSearching || (!isOfService && identity.search == Identity::Search::UnderWay);
    }
    return isSearching ? std::nullopt : std::optional(Posters::nobody);
}

std::vector<std::shared_ptr<const OwnProbe>> Connections::askOwnPosters(RequestConnection& client,
                                                                        uint64_t barrier, TimePoint now)
{
    mIdentities.seek(client.identity);
    std::vector<PostConnection*> posters;
    for (const auto& peer : mPosts.peers())
    {
        if (!PostPort::needsOwnProbe(*peer) || !mayBeSameProcess(client.identity, peer->identity) ||
            mIdentities.isNotOf(client.identity, peer->identity, peer->acceptedAt()))
            continue;
        mIdentities.seek(peer->identity); // of all: one pass through the processes finds many as fast as one
        posters.push_back(peer.get());
    }
    keepNearest(posters, mostOwnPosters, client.postsArrived.value_or(0));
    std::vector<std::shared_ptr<const OwnProbe>> probes;
    for (PostConnection* poster : posters)
    {
        if (auto probe = mPosts.askOwn(*poster, barrier, now))
            probes.push_back(std::move(probe));
    }
    return probes;
}

uint64_t Connections::openBarrier(const std::vector<RequestConnection*>& clients, bool isSync, TimePoint now)
{
    return mPosts.openBarrier(isSync, now,
                              [&](PostConnection& poster)
                              {
                                  return std::any_of(clients.begin(), clients.end(),
                                                     [&](RequestConnection* client)
                                                     {
                                                         seekBoth(client->identity, poster.identity);
                                                         return mayBeOf(*client, poster);
                                                     });
                              });
}

TimePoint Connections::endOfWait(RequestConnection& client, uint64_t barrier, bool isSync, TimePoint opened)
{
    return mPosts.endOfWait(barrier, isSync, opened,
                            [&](PostConnection& poster)
                            {
                                seekBoth(client.identity, poster.identity);
                                return mayBeOf(client, poster);
                            });
}

bool Connections::isUnreadBefore(const RequestConnection& client, uint64_t barrier)
{
    return mPosts.isUnreadBefore(barrier,
                                 [&](const PostConnection& poster) { return mayBeOf(client, poster); });
}

bool Connections::canPost(RequestConnection& client, TimePoint now)
{
    mIdentities.seek(client.identity);
    return client.identity.search != Identity::Search::UnderWay &&
           std::any_of(mPosts.peers().begin(), mPosts.peers().end(),
                       [&](const auto& peer)
                       {
                           if (!PostPort::isSubscribed(*peer, now))
                               return false;
                           mIdentities.seek(peer->identity);
                           return peer->identity.search != Identity::Search::UnderWay &&
                                  mayBePosterOf(client.identity, peer->identity);
                       });
}

// Others that connect all the time would otherwise hold up a client until their processes are found.
bool Connections::mayBeOf(const RequestConnection& client, const PostConnection& poster)
{
    return !areDifferentProcesses(client.identity, poster.identity) &&
           !mIdentities.isNotOf(client.identity, poster.identity, poster.acceptedAt());
}

void Connections::seekBoth(Identity& one, Identity& other)
{
    for (Identity* each : {&one, &other})
    {
        if (each->search == Identity::Search::None)
            mIdentities.seek(*each);
    }
}

void Connections::enterPoster(PostConnection& connection)
{
    mIdentities.seek(connection.identity);
    connection.poster = mState.posters().add(posterOf(connection.identity));
}

void Connections::appendClients(std::string& to, TimePoint now)
{
    const std::vector<Client> all = clients(now);
    BrokerProtocol::appendClients(to, all, !mIdentities.isSeeking());
}

std::vector<Client> Connections::clients(TimePoint now)
{
    const uint64_t wallNow = microsecondsOf(CLOCK_REALTIME);
    // A connection without a key stands alone.
    std::map<std::pair<std::optional<ClientKey>, const Connection*>, Client> clients;
    forEach(
        [&](Connection& connection)
        {
            mIdentities.seek(connection.identity);
            const std::optional<ClientKey> key = clientKeyOf(connection.identity);
            const auto [place, isNew] = clients.try_emplace({key, key ? nullptr : &connection});
            Client& client = place->second;
            if (isNew)
                client = begin(connection.identity);
            const auto age =
                std::chrono::duration_cast<std::chrono::microseconds>(now - connection.acceptedAt()).count();
            const uint64_t ageNow = std::min(wallNow, static_cast<uint64_t>(std::max<int64_t>(age, 0)));
            client.since = std::min(client.since, wallNow - ageNow);
            ++client.connections;
            client.refusals += connection.refusals;
            client.received += connection.receivedBytes();
            client.sent += connection.sentBytes();
            if (connection.kind() == Handshake::Kind::Post)
                client.posts += connection.messages;
            else if (connection.kind() == Handshake::Kind::Request)
                client.requests += connection.messages;
            client.queued += connection.kind() == Handshake::Kind::Notify
                                 ? mNotify.queuedBytes(static_cast<NotifyConnection&>(connection))
                                 : connection.outputBytes();
        });
    std::vector<Client> list;
    list.reserve(clients.size());
    for (auto& [key, client] : clients)
        list.push_back(std::move(client));
    std::stable_sort(list.begin(), list.end(),
                     [](const Client& one, const Client& other) { return one.since < other.since; });
    return list;
}
