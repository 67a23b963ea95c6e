#include "broker/PostApplier.h"

#include <cerrno>
#include <cstring>
#include <sys/time.h>

using BrokerProtocol::Operation;

void PostApplier::apply(const Connection& client, std::string_view post)
{
    ++mCount;
    if (post == BrokerProtocol::syncWord)
        mOutbox.publish(BrokerProtocol::syncWord, 0);
    else if (mCommand.readPost(post))
        apply(client, mCommand);
    else
        refuse(post);
}

// The library loses the end of texts whose length is a multiple of its frames' size, the last frame being
// empty then.
void PostApplier::refuse(std::string_view post)
{
    const bool isCutOff = post.size() % BrokerProtocol::maxFrameBytes == 0;
    mRefusals.report(
        Refusal::MalformedPost, "Malformed post [%.*s] refused%s", excerptLength(post), post.data(),
        isCutOff ? ", which seems to lack its last 512 bytes: its length is a multiple of that" : "");
}

void PostApplier::apply(const Connection& client, BrokerProtocol::Command& command)
{
    namespace Key = BrokerProtocol::Key;
    const auto nameOfMember = [](const BrokerProtocol::Member& member) { return member.name; };
    const auto mayUseTimer = [&] { return mGuard.may(client, Action::Timers, command.text); };
    switch (command.operation)
    {
    case Operation::UpdateSystemTime:
        return setSystemTime(client, command.number);
    case Operation::PostStatus:
        mGuard.keepAllowed(client, Action::Post, command.members, nameOfMember);
        return publish(Key::statusUpdate, mState.post(command.members), 0);
    case Operation::ResetStatus:
        mGuard.keepAllowed(client, Action::Reset, command.texts, [](std::string_view key) { return key; });
        return publish(Key::statusUpdate, mState.reset(command.texts), 0);
    case Operation::PostEvent:
    {
        mGuard.keepAllowed(client, Action::Event, command.members, nameOfMember);
        const DeviceState::Members& events = mState.events(command.members);
        return publish(Key::eventUpdate, events, events.size());
    }
    case Operation::StartTimer:
        return mayUseTimer() ? mState.startTimer(command.text) : void();
    case Operation::StopTimer:
        return mayUseTimer() ? mState.stopTimer(command.text) : void();
    case Operation::ResetTimer:
        return mayUseTimer() ? mState.resetTimer(command.text) : void();
    case Operation::RestartTimer:
        return mayUseTimer() ? mState.restartTimer(command.text) : void();
    case Operation::SetCounterValue:
        if (mGuard.may(client, Action::Counters, command.text))
            mState.setCounter(command.text, command.number);
        return;
    case Operation::GetClientInfo:
    case Operation::GetClientInfoValue:
    case Operation::GetClientInfoValues:
    case Operation::GetTimerElapsed:
    case Operation::GetTimerLastStarted:
    case Operation::GetCounterValue:
    case Operation::IncrementCounter:
    case Operation::GetBrokerStatistics:
    case Operation::GetBrokerClients:
    case Operation::GetPolicyDecision:
    case Operation::ForgetStatus:
    case Operation::ForgetTimers:
    case Operation::ForgetCounters:
        return; // no posts
    }
}

// A post that changes nothing is not published.
void PostApplier::publish(const char* key, const DeviceState::Members& members, uint64_t events)
{
    constexpr std::size_t keptBytes = 4096;
    if (members.empty())
        return;
    mNotification.clear();
    BrokerProtocol::appendUpdate(mNotification, key, members);
    mOutbox.publish(mNotification, events);
    if (mNotification.capacity() > keptBytes)
        std::string().swap(mNotification);
}

void PostApplier::setSystemTime(const Connection& client, uint32_t seconds)
{
    if (!mGuard.may(client, Action::Time, {}))
        return;
    if (!mOptions.allowSetTime)
        return mRefusals.report(Refusal::SystemTime,
                                "Setting the system time to %u refused, not started with --allow-set-time",
                                seconds);
    if (seconds < STATUSBROKER_BUILD_TIME)
        return mRefusals.report(
            Refusal::SystemTime,
            "Setting the system time to %u refused, that is before this program was built", seconds);
    timeval time{};
    time.tv_sec = static_cast<decltype(time.tv_sec)>(seconds);
    if (settimeofday(&time, nullptr) != 0)
        mRefusals.report(Refusal::SystemTime, "Failed to set the system time to %u: %s", seconds,
                         strerror(errno));
}
