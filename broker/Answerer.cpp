#include "broker/Answerer.h"

#include <unistd.h>

#include "broker/PolicyInquiry.h"
#include "daemon/OptionText.h"

namespace
{

template <class Append, class Value>
Reply replyOf(Append append, Value value)
{
    std::string text;
    append(text, value);
    return Reply(std::move(text));
}

std::optional<BrokerProtocol::TimerReading> readingIn(const std::vector<std::string_view>& texts)
{
    if (texts.size() != 4)
        return std::nullopt;
    const std::optional<uint64_t> elapsed = OptionText::readNumber(texts[1]);
    const std::optional<uint64_t> lastStarted = OptionText::readNumber(texts[2]);
    const bool isRunning = texts[3] == BrokerProtocol::timerRuns;
    if (!elapsed || *elapsed > BrokerProtocol::mostTimerMicroseconds || !lastStarted ||
        *lastStarted > BrokerProtocol::mostTimerMicroseconds ||
        (!isRunning && texts[3] != BrokerProtocol::timerStands))
        return std::nullopt;
    return BrokerProtocol::TimerReading{*elapsed, *lastStarted, isRunning};
}

} // namespace

Reply Answerer::answer(Connection& client, std::string_view request)
{
    if (mCommand.readRequest(request))
        return answer(client, mCommand);
    mRefusals.report(Refusal::MalformedRequest, "Malformed request [%.*s] refused", excerptLength(request),
                     request.data());
    return Reply(refusal);
}

// For a denied name, the client gets the same answer as for a name that does not exist.
Reply Answerer::answer(Connection& client, BrokerProtocol::Command& command)
{
    const auto mayAsk = [&] { return mGuard.may(client, Action::Query, command.text); };
    using BrokerProtocol::Operation;
    ++mCounts[BrokerProtocol::nameOf(command.operation)];
    switch (command.operation)
    {
    case Operation::GetClientInfo:
        return Reply::ofAll();
    case Operation::GetClientInfoValue:
        return replyOf(BrokerProtocol::appendStatusValueReply, mayAsk() && mGuard.shows(client, command.text)
                                                                   ? mState.valueOf(command.text)
                                                                   : std::string_view());
    case Operation::GetClientInfoValues:
        return Reply::of(command.texts);
    case Operation::GetTimerElapsed:
        return replyOf(BrokerProtocol::appendTimerReply, mayAsk() ? mState.elapsed(command.text) : 0);
    case Operation::GetTimerLastStarted:
        return replyOf(BrokerProtocol::appendTimerReply, mayAsk() ? mState.lastStarted(command.text) : 0);
    case Operation::GetCounterValue:
        return replyOf(BrokerProtocol::appendCounterReply, mayAsk() ? mState.counter(command.text) : 0);
    case Operation::IncrementCounter:
        return increment(client, command.text);
    case Operation::GetBrokerStatistics:
        return Reply(statistics());
    case Operation::GetBrokerClients:
        return Reply(clients());
    case Operation::GetPolicyDecision:
        return Reply(decision(client, command.texts));
    case Operation::GetStatusDetails:
        return Reply::detailsOf(command.texts);
    case Operation::ForgetStatus:
    case Operation::ForgetTimers:
    case Operation::ForgetCounters:
        return Reply(mForget(client, command));
    case Operation::GetTimers:
        return Reply::ofTimers();
    case Operation::GetCounters:
        return Reply::ofCounters();
    case Operation::SetTimer:
        return setTimer(client, command.texts);
    case Operation::UpdateSystemTime:
    case Operation::PostStatus:
    case Operation::ResetStatus:
    case Operation::PostEvent:
    case Operation::StartTimer:
    case Operation::StopTimer:
    case Operation::ResetTimer:
    case Operation::RestartTimer:
    case Operation::SetCounterValue:
        break; // not requests
    }
    return Reply(refusal);
}

Reply Answerer::increment(const Connection& client, std::string_view counter)
{
    if (!mGuard.quotas().mayPost(client) || !mGuard.may(client, Action::Counters, counter))
        return Reply(refusal);
    const std::optional<uint32_t> value = mState.incrementCounter(counter);
    return value ? replyOf(BrokerProtocol::appendCounterReply, *value) : Reply(refusal);
}

// A timer has four texts: its name, the two numbers of a reading, and whether it runs; see docs/protocol.md.
Reply Answerer::setTimer(const Connection& client, const std::vector<std::string_view>& texts)
{
    const auto name = texts.empty() ? std::string_view() : texts.front();
    const std::optional<BrokerProtocol::TimerReading> reading = readingIn(texts);
    if (!reading)
        mRefusals.report(Refusal::MalformedRequest, "Malformed request [%s of %.*s] refused",
                         BrokerProtocol::Key::setTimer, excerptLength(name), name.data());
    if (!reading || !mGuard.quotas().mayPost(client) || !mGuard.may(client, Action::Timers, name) ||
        !mState.setTimer(name, *reading))
        return Reply(refusal);
    return replyOf(BrokerProtocol::appendTimerReply, mState.elapsed(name));
}

// With so many clients that this takes long, requests share an answer: it must not take much of the broker's
// time.
const std::string& Answerer::clients()
{
    constexpr std::chrono::microseconds notLong{500};
    constexpr int shareOfTime = 20;
    const TimePoint begin = Clock::now();
    if (begin < mClientsUntil)
        return mClients;
    mClients.clear();
    mAppendClients(mClients);
    const TimePoint end = Clock::now();
    mClientsUntil = end - begin < notLong ? end : end + shareOfTime * (end - begin);
    return mClients;
}

// A question has three texts: the client, the action and the name; see docs/protocol.md. The answer reveals
// rules, users and names, which are only for root and the broker's user.
std::string Answerer::decision(const Connection& client, const std::vector<std::string_view>& question)
{
    namespace Member = BrokerProtocol::DecisionMember;
    std::string text = "{";
    const auto add = [&](const char* name, std::string_view value) {
        BrokerProtocol::appendMember(text, {name, value});
    };
    const auto at = [&](std::size_t index)
    { return index < question.size() ? question[index] : std::string_view(); };
    const std::optional<uid_t> asking = client.identity.owner.uid();
    if (asking != uid_t{0} && asking != geteuid())
    {
        add(Member::error, "only root and the broker's user may ask");
        return text + '}';
    }
    const PolicyInquiry inquiry(mGuard.policy(), mGuard.users(), at(0), at(1));
    if (!inquiry.error().empty())
        add(Member::error, inquiry.error());
    else
    {
        add(Member::allowed, inquiry.isAllowed(at(2)) ? "yes" : "no");
        add(Member::reason, inquiry.reason(at(2)));
    }
    return text + '}';
}

std::string Answerer::statistics()
{
    Statistics::Numbers numbers;
    for (const auto& [name, count] : mCounts)
        numbers["requests." + std::string(name)] = count;
    for (std::size_t kind = 0; kind < refusalKinds; ++kind)
        numbers[Refusals::name(static_cast<Refusal>(kind))] = mRefusals.count(static_cast<Refusal>(kind));
    numbers["stored.keys"] = mState.keys();
    numbers["stored.forgotten"] = mState.forgotten();
    numbers["stored.bytes"] = mState.storedBytes();
    numbers["stored.timers"] = mState.timers();
    numbers["stored.counters"] = mState.counters();
    mAddNumbers(numbers);
    mProcess.add(numbers, Clock::now());
    std::string text;
    BrokerProtocol::appendNumbers(text, numbers);
    return text;
}
