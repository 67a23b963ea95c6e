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

// How long to take posts, and then to answer requests, before other work.
constexpr std::chrono::milliseconds turn{3};

// When asked to stop, the broker serves until nothing has arrived for a while, within these limits.
constexpr std::chrono::milliseconds finishQuiet{50};
constexpr std::chrono::milliseconds longestFinish{400};
constexpr std::chrono::milliseconds longestEnd{1200};
constexpr std::chrono::milliseconds outputPause{10};

constexpr std::chrono::microseconds withoutLimit{-1};

// How often to check which connections make progress, while memory may become short.
constexpr std::chrono::milliseconds lookPause{250};

// How often to return freed memory to the system.
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

void logState(const Options& options)
{
    if (options.stateFile.empty())
        OV_LOG(5, "There is no state file: the state is lost when the broker ends");
    else
        OV_LOG(5, "The state file is [%s]", options.stateFile.c_str());
}

} // namespace

Broker::Broker(const Options& options, std::unique_ptr<const Policy> policy)
    : mOptions(adjusted(options)), mState(mOptions.limits, mRefusals), mOwnedValues(mState, makeWorld()),
      mConnections(mLoop.poller, mBudget, mOptions.limits, mRefusals, std::move(policy), mState,
                   makeHandlers()),
      mOutbox(mOptions, mState, mConnections.notify(), mConnections.requests()),
      mApplier(mOptions, mConnections.guard(), mRefusals, mState, mOwnedValues, mOutbox),
      mForgetting(mConnections.guard(), mRefusals, mState, mOwnedValues, mOutbox, mConnections.notify()),
      mAnswerer(
          mConnections.guard(), mRefusals, mState,
          [this](Statistics::Numbers& numbers) { addNumbers(numbers); },
          [this](std::string& to) { mConnections.appendClients(to, Clock::now()); },
          [this](const Connection& client, BrokerProtocol::Command& command)
          { return mForgetting.forget(client, command); }),
      mQuestions(mAnswerer, mOutbox, mConnections, mRefusals, mState, Clock::now())
{
    planTasks();
    applyPolicy(Clock::now());
    mConnections.listen();
    logState(mOptions);
    OV_LOG(5, "Serving on 127.0.0.1, ports 5555 (requests), 5556 (posts), 5557 (notifications)");
    mSupervisor.ready("Serving, " + std::to_string(mState.keys()) + " keys loaded");
}

OwnedValues::World Broker::makeWorld()
{
    return {[this](Posters::Id client) { return mConnections.isHere(client); },
            [this](Posters::Id gone, TimePoint since) { return mConnections.successorOf(gone, since); },
            [this](Posters::Id gone, const PolicyTie& rule, const std::vector<std::string_view>& keys)
            { mApplier.endValues(gone, rule, keys); }};
}

Connections::Handlers Broker::makeHandlers()
{
    return {[this](PostConnection& client, std::string_view post)
            {
                mConnections.introduce(client);
                mApplier.apply(client, post);
            },
            [this](Posters::Id client, bool canComeBack, TimePoint since)
            { mOwnedValues.gone(client, canComeBack, since, Clock::now()); },
            [this](RequestConnection& connection) { mQuestions.ask(connection); },
            [this](RequestConnection& connection)
            {
                mQuestions.forget(connection);
                mOutbox.forget(connection);
            }};
}

void Broker::planTasks()
{
    mLoop.schedule.add([this] { return mOwnedValues.due(); },
                       [this](TimePoint now) { mOwnedValues.doWhatIsDue(now); });
    mLoop.schedule.add([this] { return mSupervisor.nextTelling().value_or(TimePoint::max()); },
                       [this](TimePoint now) { mSupervisor.tellWhatIsDue(now); });
    mLoop.schedule.add([this] { return mOutbox.due(); }, [this](TimePoint now) { mOutbox.doWhatIsDue(now); });
    mLoop.schedule.add([this] { return mConnections.posts().due(); },
                       [this](TimePoint now) { mConnections.posts().doWhatIsDue(now); });
    mLoop.schedule.add([this] { return mConnections.requests().due(); },
                       [this](TimePoint now) { mConnections.requests().doWhatIsDue(now); });
    mLoop.schedule.add([this] { return mConnections.notify().due(); },
                       [this](TimePoint now) { mConnections.notify().doWhatIsDue(now); });
    mLoop.schedule.add([this] { return mConnections.due(); },
                       [this](TimePoint now) { mConnections.doWhatIsDue(now); });
    mLoop.schedule.addRound([this] { return mQuestions.due(); });
    mLoop.schedule.addRound(
        [this] { return mConnections.posts().hasPosts() ? TimePoint::min() : TimePoint::max(); });
    mLoop.schedule.addRound(
        [this] { return mConnections.requests().hasLong() ? TimePoint::min() : TimePoint::max(); });
    mLoop.schedule.addRound([this] { return mPause.due(); });
    mLoop.schedule.addRound([this] { return mForgetting.due(); });
    mLoop.schedule.add([this] { return mBudget.isTight() ? mLoop.nextLook : TimePoint::max(); },
                       [this](TimePoint now)
                       {
                           mConnections.forEach([](Connection& each)
                                                { each.progress.look(each.movedBytes()); });
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
                           // Clients ignore it. But a client that shuts down checks its stop flag only after
                           // a notification.
                           mOutbox.publish(BrokerProtocol::syncWord, 0);
                           mLoop.nextHeartbeat = now + mOptions.heartbeat;
                       });
}

void Broker::setPolicy(std::unique_ptr<const Policy> policy)
{
    const TimePoint now = Clock::now();
    mConnections.setPolicy(std::move(policy), now);
    applyPolicy(now);
}

// Applies the policy to the values.
void Broker::applyPolicy(TimePoint now)
{
    Guard& guard = mConnections.guard();
    mOwnedValues.setPolicy(guard.policy(), now);
    Shares::Judge judge;
    if (guard.policy().hasQuotas())
        judge = [&quotas = guard.quotas()](Shares::User user, const Shares::Share& before,
                                           const Shares::Share& after)
        { return quotas.mayTake(user, before, after); };
    mState.setShares(std::move(judge));
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

// Waits until something arrives or is due.
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

// Returns the number of events.
std::size_t Broker::takeEvents(std::chrono::microseconds limit)
{
    const std::size_t events = mLoop.poller.wait(limit);
    const TimePoint now = Clock::now();
    mLoop.awake = now;
    mLoop.hasWorked = mLoop.hasWorked || events != 0;
    mConnections.noteCrowds(events);
    for (std::size_t index = 0; index < events; ++index)
        dispatch(mLoop.poller.event(index), now);
    mConnections.noteCrowds(0);
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
        return; // by an earlier event
    mConnections.serve(connection, event.what, now);
}

void Broker::acceptAt(const Pollable* port, TimePoint now)
{
    if (port == &mConnections.posts())
        mLoop.hasNewPosters = true; // accepting may read posts, which doRound() does
    else if (port == &mConnections.requests())
        mConnections.requests().accept(RequestPort::fewAtATime, now);
    else
        mConnections.notify().accept(NotifyPort::fewAtATime, now);
}

void Broker::doRound()
{
    const TimePoint begin = Clock::now();
    if (std::exchange(mLoop.hasNewPosters, false))
        mConnections.posts().accept(PostPort::fewAtATime, begin);
    mConnections.posts().takePosts(begin + turn);
    const TimePoint now = Clock::now();
    mQuestions.answer(now, now + turn);
    mLoop.schedule.doWhatIsDue(now);
    mOutbox.settle();
    takeHeavyPosts(begin + turn);
    mConnections.notify().flush(now);
    mConnections.requests().sendLong(Clock::now() + turn);
    mForgetting.dropWhatAllKnow(now);
    pauseIntake(now);
    relieveMemory();
    mConnections.collect();
    const auto taken = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - mLoop.awake);
    mLoop.rounds.add(static_cast<uint64_t>(taken.count()));
    if (std::exchange(mLoop.hasWorked, false) && mLoop.nextTrim == TimePoint::max())
        mLoop.nextTrim = begin + trimPause;
}

// Behind the answers: storing one long post may take many milliseconds.
void Broker::takeHeavyPosts(TimePoint end)
{
    if (!mConnections.posts().hasHeavyPosts())
        return;
    mConnections.posts().takeHeavyPosts(end);
    mOutbox.settle();
}

void Broker::pauseIntake(TimePoint now)
{
    const std::size_t limit = mOptions.limits.notifyBytes;
    const bool wasPaused = mPause.isPaused();
    const bool isPaused = !mLoop.isEnding && mPause.decide(mConnections.notify().backlog(now), limit, now);
    if (isPaused != wasPaused)
        mConnections.posts().pause(isPaused);
    mConnections.notify().shortenLog(limit, now);
}

// The largest holder gives way first: the log of notifications, or a connection.
void Broker::relieveMemory()
{
    while (mBudget.isExceeded())
    {
        const std::size_t log = mConnections.notify().log().heldBytes();
        MemoryRelief<Connection> relief(mConnections.notify().log().endOfOldest() != 0 ? log : 0);
        mConnections.forEach(
            [&](Connection& each) {
                relief.add(each, each.accounted, each.progress.isStalled(each.movedBytes(), each.accounted));
            });
        if (relief.isLog())
            mConnections.notify().shortenLog(log - 1, Clock::now());
        else if (Connection* holder = relief.holder())
            mConnections.closeForMemory(*holder);
        else
            return;
    }
}

void Broker::addNumbers(Statistics::Numbers& numbers) const
{
    namespace Number = BrokerProtocol::Number;
    numbers[Number::posts] = mApplier.count();
    numbers[Number::published] = mConnections.notify().published();
    numbers[Number::missedEvents] = mConnections.notify().missedEvents();
    numbers[Number::fallenBehind] = mConnections.notify().fallenBehind();
    numbers["policy.rules"] = mConnections.guard().policy().rules();
    numbers["clients.requests"] = mConnections.requests().openPeers();
    numbers["clients.posts"] = mConnections.posts().openPeers();
    numbers["clients.notifications"] = mConnections.notify().openPeers();
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
    mLoop.isEnding = true; // no pause for slow subscribers: posts not read now are lost
    doRound();
    bool isQuiet = false;
    while (!isQuiet && Clock::now() < begin + longestFinish)
    {
        isQuiet =
            takeEvents(mConnections.posts().hasPosts() ? std::chrono::milliseconds(0) : finishQuiet) == 0;
        isQuiet = isQuiet && !mConnections.posts().hasPosts();
        doRound();
    }
    mQuestions.answerAll();
    mOutbox.finish();
    mConnections.posts().pause(true);
    while (Clock::now() < begin + longestEnd &&
           (mConnections.notify().hasOutput() || mConnections.requests().hasOutput()))
    {
        mConnections.notify().flush(Clock::now());
        mConnections.requests().sendLong(Clock::now() + turn);
        takeEvents(mConnections.requests().hasLong() ? std::chrono::milliseconds(0) : outputPause);
    }
    mConnections.requests().sayGoodbye(begin + longestEnd);
    mConnections.finish();
    OV_LOG(5, "Stopped");
}
