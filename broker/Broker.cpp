#include "broker/Broker.h"

#include <algorithm>
#include <malloc.h>
#include <utility>

#include "broker/Descriptors.h"
#include "broker/MemoryRelief.h"
#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

namespace
{

// Posts are taken, and requests answered, for so long before the others have their turn.
constexpr std::chrono::milliseconds turn{5};

// Asked to stop, the broker serves until nothing has come for a while. All of it has one bound.
constexpr std::chrono::milliseconds finishQuiet{50};
constexpr std::chrono::milliseconds longestFinish{400};
constexpr std::chrono::milliseconds longestEnd{1200};
constexpr std::chrono::milliseconds outputPause{10};

constexpr std::chrono::microseconds withoutLimit{-1};

// How often it is looked at who gets on, while memory may become short.
constexpr std::chrono::milliseconds lookPause{250};

// How often memory that was freed is given back to the system.
constexpr std::chrono::seconds trimPause{1};

Limits within(Limits limits, std::size_t descriptors)
{
    const std::size_t possible = Descriptors::connectionsPerPort(descriptors);
    if (limits.connections > possible)
        OV_LOG(2, "Only %zu connections per port: the limit of open files is %zu", possible, descriptors);
    limits.connections = std::min(limits.connections, possible);
    return limits;
}

Options adjusted(Options options)
{
    options.limits = within(options.limits, Descriptors::raiseLimit(options.limits.connections));
    return options;
}

} // namespace

Broker::Broker(const Options& options)
    : mOptions(adjusted(options)), mState(mOptions.limits, mRefusals),
      mRequests(
          mLoop.poller, mBudget, mOptions.limits, mRefusals, mState,
          [this](RequestConnection& connection) { mQuestions.ask(connection); },
          [this](RequestConnection& connection)
          {
              mQuestions.forget(connection);
              mOutbox.forget(connection);
          }),
      mNotify(mLoop.poller, mBudget, mOptions.limits, mRefusals, mState),
      mOutbox(mOptions, mState, mNotify, mRequests), mApplier(mOptions, mRefusals, mState, mOutbox),
      mPosts(mLoop.poller, mBudget, mOptions.limits, mRefusals,
             [this](std::string_view post) { mApplier.apply(post); }),
      mAnswerer(mRefusals, mState, [this](Statistics::Numbers& numbers) { addNumbers(numbers); }),
      mQuestions(mAnswerer, mOutbox, mPosts, mRequests, mNotify, mState, Clock::now())
{
    planTasks();
    // A client whose request arrives has been able to connect its post socket, then.
    mPosts.listen();
    mNotify.listen();
    mRequests.listen();
    OV_LOG(5, "Serving on 127.0.0.1, ports 5555 (requests), 5556 (posts), 5557 (notifications)");
    mSupervisor.ready("Serving, " + std::to_string(mState.keys()) + " keys loaded");
}

void Broker::planTasks()
{
    mLoop.schedule.add([this] { return mSupervisor.nextTelling().value_or(TimePoint::max()); },
                       [this](TimePoint now) { mSupervisor.tellWhatIsDue(now); });
    mLoop.schedule.add([this] { return mOutbox.due(); }, [this](TimePoint now) { mOutbox.doWhatIsDue(now); });
    mLoop.schedule.add([this] { return mPosts.due(); }, [this](TimePoint now) { mPosts.doWhatIsDue(now); });
    mLoop.schedule.add([this] { return mRequests.due(); },
                       [this](TimePoint now) { mRequests.doWhatIsDue(now); });
    mLoop.schedule.add([this] { return mNotify.due(); }, [this](TimePoint now) { mNotify.doWhatIsDue(now); });
    mLoop.schedule.add([this] { return mQuestions.due(); }, [](TimePoint) {}); // every round answers
    mLoop.schedule.add([this] { return mPosts.hasPosts() ? TimePoint::min() : TimePoint::max(); },
                       [](TimePoint) {});                                  // every round takes some
    mLoop.schedule.add([this] { return mPause.due(); }, [](TimePoint) {}); // every round decides
    mLoop.schedule.add([this] { return mBudget.isTight() ? mLoop.nextLook : TimePoint::max(); },
                       [this](TimePoint now)
                       {
                           forEachConnection([](Connection& each) { each.progress.look(each.movedBytes()); });
                           mLoop.nextLook = now + lookPause;
                       });
    mLoop.schedule.add([this] { return mLoop.nextTrim; },
                       [this](TimePoint)
                       {
                           malloc_trim(0);
                           mLoop.nextTrim = TimePoint::max();
                       });
    if (mOptions.heartbeat.count() == 0)
        return;
    mLoop.nextHeartbeat = mLoop.started + mOptions.heartbeat;
    mLoop.schedule.add([this] { return mLoop.nextHeartbeat; },
                       [this](TimePoint now)
                       {
                           // Clients ignore it. One that shuts down looks at its stop flag only when a
                           // notification has come.
                           mOutbox.publish(BrokerProtocol::syncWord, 0);
                           mLoop.nextHeartbeat = now + mOptions.heartbeat;
                       });
}

void Broker::setLimits(const Limits& limits)
{
    mOptions.limits = limits;
    mOptions = adjusted(mOptions);
}

// ---------------------------------------------------------------------------------------------------- loop

void Broker::serveUntil(int interrupt)
{
    mLoop.isInterrupted = false;
    mLoop.poller.add(interrupt, EPOLLIN, &mLoop.interrupt);
    while (!mLoop.isInterrupted)
    {
        waitForWork();
        doRound();
    }
    mLoop.poller.remove(interrupt);
}

// Until something comes or is due.
void Broker::waitForWork()
{
    const TimePoint next = mLoop.schedule.next();
    const TimePoint now = Clock::now();
    if (next == TimePoint::max())
        takeEvents(withoutLimit);
    else if (next <= now)
        takeEvents(std::chrono::microseconds(0));
    else
        takeEvents(std::chrono::ceil<std::chrono::microseconds>(next - now));
}

// Returns how many there were.
std::size_t Broker::takeEvents(std::chrono::microseconds limit)
{
    const std::size_t events = mLoop.poller.wait(limit);
    const TimePoint now = Clock::now();
    mLoop.hasWorked = mLoop.hasWorked || events != 0;
    for (std::size_t index = 0; index < events; ++index)
        dispatch(mLoop.poller.event(index), now);
    return events;
}

void Broker::dispatch(const Poller::Event& event, TimePoint now)
{
    switch (event.owner->pollableKind())
    {
    case Pollable::Kind::Interrupt:
        mLoop.isInterrupted = true;
        return;
    case Pollable::Kind::Listener:
        return acceptAt(event.owner, now);
    case Pollable::Kind::Connection:
        break;
    }
    auto& connection = static_cast<Connection&>(*event.owner);
    if (connection.isClosed())
        return; // by an event before this one
    switch (connection.kind())
    {
    case Handshake::Kind::Post:
        return mPosts.serve(static_cast<PostConnection&>(connection), event.what);
    case Handshake::Kind::Request:
        return mRequests.serve(static_cast<RequestConnection&>(connection), event.what, now);
    case Handshake::Kind::Notify:
        return mNotify.serve(static_cast<NotifyConnection&>(connection), event.what, now);
    }
}

void Broker::acceptAt(const Pollable* port, TimePoint now)
{
    if (port == &mPosts)
        mLoop.hasNewPosters = true; // accepting may read posts, which is for the round
    else if (port == &mRequests)
        mRequests.accept(RequestPort::fewAtATime, now);
    else
        mNotify.accept(NotifyPort::fewAtATime, now);
}

void Broker::doRound()
{
    const TimePoint begin = Clock::now();
    if (std::exchange(mLoop.hasNewPosters, false))
        mPosts.accept(PostPort::fewAtATime, begin);
    mPosts.takePosts(begin + turn);
    const TimePoint now = Clock::now();
    mQuestions.answer(now, now + turn);
    mLoop.schedule.doWhatIsDue(now);
    mOutbox.settle();
    mNotify.flush(now);
    pauseIntake(now);
    relieveMemory();
    collectClosed();
    const auto taken = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
    mLoop.rounds.add(static_cast<uint64_t>(taken.count()));
    if (std::exchange(mLoop.hasWorked, false) && mLoop.nextTrim == TimePoint::max())
        mLoop.nextTrim = begin + trimPause;
}

void Broker::pauseIntake(TimePoint now)
{
    const std::size_t limit = mOptions.limits.notifyBytes;
    const bool wasPaused = mPause.isPaused();
    const bool isPaused = !mLoop.isEnding && mPause.decide(mNotify.backlog(now), limit, now);
    if (isPaused != wasPaused)
        mPosts.pause(isPaused);
    mNotify.shortenLog(limit, now);
}

// Whoever holds most gives way first: the log of notifications, or a connection.
void Broker::relieveMemory()
{
    while (mBudget.isExceeded())
    {
        const std::size_t log = mNotify.log().heldBytes();
        MemoryRelief<Connection> relief(mNotify.log().endOfOldest() != 0 ? log : 0);
        forEachConnection(
            [&](Connection& each) {
                relief.add(each, each.accounted, each.progress.isStalled(each.movedBytes(), each.accounted));
            });
        if (relief.isLog())
            mNotify.shortenLog(log - 1, Clock::now());
        else if (Connection* holder = relief.holder())
            closeForMemory(*holder);
        else
            return;
    }
}

template <class Do>
void Broker::forEachConnection(Do&& act) const
{
    const auto visit = [&](const auto& peers)
    {
        for (const auto& peer : peers)
            act(*peer);
    };
    visit(mPosts.peers());
    visit(mRequests.peers());
    visit(mNotify.peers());
}

void Broker::closeForMemory(Connection& connection)
{
    mRefusals.report(Refusal::Memory, "Closing the connection that holds most, %zu bytes of %zu",
                     connection.accounted, mBudget.held());
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

void Broker::collectClosed()
{
    mPosts.collect();
    mRequests.collect();
    mNotify.collect();
}

void Broker::addNumbers(Statistics::Numbers& numbers) const
{
    namespace Number = BrokerProtocol::Number;
    numbers[Number::posts] = mApplier.count();
    numbers[Number::published] = mNotify.published();
    numbers[Number::missedEvents] = mNotify.missedEvents();
    numbers[Number::fallenBehind] = mNotify.fallenBehind();
    numbers["clients.requests"] = mRequests.openPeers();
    numbers["clients.posts"] = mPosts.openPeers();
    numbers["clients.notifications"] = mNotify.openPeers();
    numbers["memory.connections"] = mBudget.held();
    numbers["loop.maxMicroseconds"] = mLoop.rounds.longest();
    numbers["loop.p99Microseconds"] = mLoop.rounds.percentile(99);
    numbers[Number::commits] = mOutbox.commits();
    numbers[Number::stateErrors] = mOutbox.errors();
    const auto uptime = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - mLoop.started);
    numbers["uptime.seconds"] = static_cast<uint64_t>(uptime.count());
    Statistics::addVersion(numbers);
}

// ----------------------------------------------------------------------------------------------------- end

void Broker::finish()
{
    mSupervisor.stopping();
    const TimePoint begin = Clock::now();
    mLoop.isEnding = true; // for slow subscribers, too: posts that are not read now are lost
    doRound();
    bool isQuiet = false;
    while (!isQuiet && Clock::now() < begin + longestFinish)
    {
        isQuiet = takeEvents(mPosts.hasPosts() ? std::chrono::milliseconds(0) : finishQuiet) == 0;
        isQuiet = isQuiet && !mPosts.hasPosts();
        doRound();
    }
    mQuestions.answerAll();
    mOutbox.finish();
    mPosts.pause(true);
    while (Clock::now() < begin + longestEnd && (mNotify.hasOutput() || mRequests.hasOutput()))
    {
        mNotify.flush(Clock::now());
        takeEvents(outputPause);
    }
    mRequests.sayGoodbye(begin + longestEnd);
    OV_LOG(5, "Stopped");
}
