#include "broker/Answerer.h"

namespace
{

template <class Append, class Value>
Reply replyOf(Append append, Value value)
{
    std::string text;
    append(text, value);
    return Reply(std::move(text));
}

} // namespace

Reply Answerer::answer(std::string_view request)
{
    if (mCommand.readRequest(request))
        return answer(mCommand);
    mRefusals.report(Refusal::MalformedRequest, "Malformed request [%.*s] refused", excerptLength(request),
                     request.data());
    return Reply(refusal);
}

Reply Answerer::answer(const BrokerProtocol::Command& command)
{
    using BrokerProtocol::Operation;
    ++mCounts[BrokerProtocol::nameOf(command.operation)];
    switch (command.operation)
    {
    case Operation::GetClientInfo:
        return Reply::ofAll();
    case Operation::GetClientInfoValue:
        return replyOf(BrokerProtocol::appendStatusValueReply, mState.valueOf(command.text));
    case Operation::GetClientInfoValues:
        return Reply::of(command.texts);
    case Operation::GetTimerElapsed:
        return replyOf(BrokerProtocol::appendTimerReply, mState.elapsed(command.text));
    case Operation::GetTimerLastStarted:
        return replyOf(BrokerProtocol::appendTimerReply, mState.lastStarted(command.text));
    case Operation::GetCounterValue:
        return replyOf(BrokerProtocol::appendCounterReply, mState.counter(command.text));
    case Operation::IncrementCounter:
        if (const std::optional<uint32_t> value = mState.incrementCounter(command.text))
            return replyOf(BrokerProtocol::appendCounterReply, *value);
        return Reply(refusal);
    case Operation::GetBrokerStatistics:
        return Reply(statistics());
    case Operation::GetBrokerClients:
        return Reply(clients());
    case Operation::UpdateSystemTime:
    case Operation::PostStatus:
    case Operation::ResetStatus:
    case Operation::PostEvent:
    case Operation::StartTimer:
    case Operation::StopTimer:
    case Operation::ResetTimer:
    case Operation::RestartTimer:
    case Operation::SetCounterValue:
        break; // no requests
    }
    return Reply(refusal);
}

// Where there are so many that this takes long, those that ask share an answer: it must not take much of the
// broker's time.
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

std::string Answerer::statistics()
{
    Statistics::Numbers numbers;
    for (const auto& [name, count] : mCounts)
        numbers["requests." + std::string(name)] = count;
    for (std::size_t kind = 0; kind < refusalKinds; ++kind)
        numbers[Refusals::name(static_cast<Refusal>(kind))] = mRefusals.count(static_cast<Refusal>(kind));
    numbers["stored.keys"] = mState.keys();
    numbers["stored.bytes"] = mState.storedBytes();
    numbers["stored.timers"] = mState.timers();
    numbers["stored.counters"] = mState.counters();
    mAddNumbers(numbers);
    mProcess.add(numbers, Clock::now());
    std::string text;
    BrokerProtocol::appendNumbers(text, numbers);
    return text;
}
