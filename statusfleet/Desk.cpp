#include "statusfleet/Desk.h"

#include <algorithm>
#include <cstdio>
#include <poll.h>
#include <utility>

#include "statusctl/base/Failure.h"

namespace
{

constexpr std::chrono::seconds quiet{1}; // then everything has come
constexpr std::chrono::seconds tick{1};  // between two looks at a connection
constexpr Backoff::Milliseconds longestPause{30000};

uint64_t randomUpTo(uint64_t most)
{
    static std::random_device device;
    return std::uniform_int_distribution<uint64_t>(0, most)(device);
}

// Two desks must never have the same.
std::string newClientId()
{
    constexpr uint64_t many = 0xffffffffffff;
    return "statusfleet-" + std::to_string(randomUpTo(many));
}

} // namespace

// ------------------------------------------------------------------------------------------------
// DeskSession

DeskSession::DeskSession(const ServerOptions& options, std::string host, std::string clientId)
    : mOptions(options), mHost(std::move(host)), mClientId(std::move(clientId)),
      mMark(options.prefix + "/$desk/" + mClientId)
{
}

void DeskSession::open(std::vector<std::string> topics)
{
    close();
    mTopics = std::move(topics);
    mIsAccepted = mIsRefused = mHasMark = false;
    mMarkNumber.reset();
    mAnswers.clear();
    mLink.emplace(mOptions, mHost, mClientId, std::nullopt, static_cast<IMqttReceiver&>(*this));
}

void DeskSession::close()
{
    if (mLink)
        mLink->disconnect();
    mLink.reset();
    mIsAccepted = false;
}

void DeskSession::work(short events)
{
    const bool wasAccepted = mIsAccepted;
    mLink->work(events);
    if (mIsAccepted && !wasAccepted)
    {
        mLeft = mTopics.size() + 1;
        for (const std::string& topic : mTopics)
            mLink->subscribe(topic);
        mLink->subscribe(mMark);
    }
    if (mIsRefused)
        throw MqttError("the server refuses a subscription");
    if (isReady() && !mMarkNumber)
    {
        mLastMessage = Clock::now();
        mMarkNumber = mLink->publish({mMark, "x", false});
    }
}

bool DeskSession::hasAll(TimePoint now)
{
    return isReady() && (mHasMark || (mMarkNumber && answerTo(*mMarkNumber) && now - mLastMessage >= quiet));
}

std::vector<ReceivedMessage> DeskSession::take()
{
    return std::exchange(mReceived, {});
}

std::optional<std::string> DeskSession::answerTo(int number) const
{
    const auto answer = mAnswers.find(number);
    return answer == mAnswers.end() ? std::nullopt : std::optional(answer->second);
}

void DeskSession::onAccepted(unsigned)
{
    mIsAccepted = true;
    mLeft = 1; // until the subscriptions are counted
}

// The mark is a convenience, which the server may refuse. It comes last.
void DeskSession::onSubscribed(bool isGranted)
{
    --mLeft;
    mIsRefused = mIsRefused || (!isGranted && mLeft > 0);
}

void DeskSession::onAcknowledged(int message, const std::string& refusal)
{
    mAnswers[message] = refusal;
}

void DeskSession::onMessage(const ReceivedMessage& message)
{
    mLastMessage = Clock::now();
    if (message.topic == mMark)
        mHasMark = true;
    else
        mReceived.push_back(message);
}

// -------------------------------------------------------------------------------------------------------
// Desk

Desk::Line::Line(const ServerOptions& options, const std::string& host)
    : session(options, host, options.clientId.empty() ? newClientId() : options.clientId),
      backoff(randomUpTo, longestPause)
{
}

Desk::Desk(const ServerOptions& options, const std::vector<std::string>& hosts) : mOptions(options)
{
    for (const std::string& host : hosts)
        mLines.emplace_back(options, host);
}

Desk::~Desk()
{
    for (Line& line : mLines)
        line.session.close();
}

bool Desk::all(const std::function<bool(Line&)>& condition)
{
    return std::all_of(mLines.begin(), mLines.end(), condition);
}

void Desk::begin(const std::vector<std::string>& topics, const Take& take, TimePoint deadline)
{
    mTopics = topics;
    try
    {
        for (Line& line : mLines)
            line.session.open(topics);
    }
    catch (const MqttError& error)
    {
        throw Failure(ExitCode::Unreachable, error.what());
    }
    const auto hasAll = [this] { return all([](Line& line) { return line.session.hasAll(Clock::now()); }); };
    if (follow(take, hasAll, deadline))
        return;
    const bool isReady = all([](Line& line) { return line.session.isReady(); });
    throw Failure(isReady ? ExitCode::TimedOut : ExitCode::Unreachable,
                  isReady ? "timed out" : "no answer from the server " + mOptions.server);
}

bool Desk::follow(const Take& take, const Done& done, TimePoint deadline, bool isPersistent)
{
    while (!done())
    {
        if (Clock::now() >= deadline)
            return false;
        turn(take, deadline, isPersistent);
    }
    return true;
}

void Desk::turn(const Take& take, TimePoint deadline, bool isPersistent)
{
    std::vector<pollfd> items;
    for (const Line& line : mLines)
        items.push_back({line.session.descriptor(), line.session.wanted(), 0});
    const Clock::duration left = deadline - Clock::now();
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(
        std::clamp<Clock::duration>(left, Clock::duration(0), tick / 4));
    poll(items.data(), items.size(), static_cast<int>(wait.count()));
    for (std::size_t i = 0; i < mLines.size(); ++i)
    {
        work(mLines[i], items[i].revents, isPersistent);
        for (const ReceivedMessage& message : mLines[i].session.take())
            take(message);
    }
}

void Desk::work(Line& line, short events, bool isPersistent)
{
    const TimePoint now = Clock::now();
    try
    {
        if (now >= line.nextAttempt)
        {
            line.nextAttempt = TimePoint::max();
            line.since = now;
            line.session.open(mTopics);
        }
        if (line.session.descriptor() != -1)
            line.session.work(events);
    }
    catch (const MqttError& error)
    {
        if (!isPersistent)
            throw Failure(ExitCode::Unreachable,
                          "no connection to the server " + mOptions.server + ": " + error.what());
        line.session.close();
        const Backoff::Milliseconds pause = line.backoff.next(now - line.since);
        std::fprintf(stderr, "statusfleet: lost the server: %s; trying again in %lld ms\n", error.what(),
                     static_cast<long long>(pause.count()));
        line.nextAttempt = now + pause;
    }
}

void Desk::publish(const MqttLink::Message& message, const Take& take, TimePoint deadline)
{
    for (Line& line : mLines)
    {
        const std::optional<int> number = line.session.publish(message);
        if (!number)
            throw Failure(ExitCode::Failed, "the message is longer than the server takes");
        std::optional<std::string> answer;
        const auto isAnswered = [&] { return (answer = line.session.answerTo(*number)).has_value(); };
        if (!follow(take, isAnswered, deadline))
            throw Failure(ExitCode::TimedOut, "timed out: the server has not confirmed the message");
        if (!answer->empty())
            throw Failure(ExitCode::Failed, "the server refuses the message: " + *answer);
    }
}

void Desk::send(const MqttLink::Message& message)
{
    for (Line& line : mLines)
    {
        try
        {
            if (line.session.isReady())
                line.session.publish(message);
        }
        catch (const MqttError&)
        {
            // the next turn reports it
        }
    }
}
