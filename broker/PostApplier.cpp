#include "broker/PostApplier.h"

#include <cerrno>
#include <cstring>
#include <sys/time.h>

using BrokerProtocol::Operation;

void PostApplier::apply(std::string_view post)
{
    ++mCount;
    if (post == BrokerProtocol::syncWord)
        mOutbox.publish(BrokerProtocol::syncWord, 0);
    else if (mCommand.readPost(post))
        apply(mCommand);
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

void PostApplier::apply(const BrokerProtocol::Command& command)
{
    namespace Key = BrokerProtocol::Key;
    switch (command.operation)
    {
    case Operation::UpdateSystemTime:
        return setSystemTime(command.number);
    case Operation::PostStatus:
        return publish(Key::statusUpdate, mState.post(command.members), 0);
    case Operation::ResetStatus:
        return publish(Key::statusUpdate, mState.reset(command.texts), 0);
    case Operation::PostEvent:
    {
        const DeviceState::Members& events = mState.events(command.members);
        return publish(Key::eventUpdate, events, events.size());
    }
    case Operation::StartTimer:
        return mState.startTimer(command.text);
    case Operation::StopTimer:
        return mState.stopTimer(command.text);
    case Operation::ResetTimer:
        return mState.resetTimer(command.text);
    case Operation::RestartTimer:
        return mState.restartTimer(command.text);
    case Operation::SetCounterValue:
        return mState.setCounter(command.text, command.number);
    case Operation::GetClientInfo:
    case Operation::GetClientInfoValue:
    case Operation::GetClientInfoValues:
    case Operation::GetTimerElapsed:
    case Operation::GetTimerLastStarted:
    case Operation::GetCounterValue:
    case Operation::IncrementCounter:
    case Operation::GetBrokerStatistics:
    case Operation::GetBrokerClients:
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

void PostApplier::setSystemTime(uint32_t seconds)
{
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
