#include "broker/PostApplier.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/time.h>
#include <unistd.h>

using BrokerProtocol::Operation;

namespace
{

BrokerProtocol::Poster self(const Users& users)
{
    BrokerProtocol::Poster poster;
    poster.uid = geteuid();
    poster.user = users.name(*poster.uid);
    poster.program = "statusbroker";
    poster.pid = static_cast<uint32_t>(getpid());
    return poster;
}

// Names the poster as other log lines name clients.
std::string textOf(const BrokerProtocol::Poster& poster)
{
    return (poster.service.empty() ? "" : poster.service + ", ") +
           (poster.user.empty() ? "unknown user" : "user " + poster.user) +
           (poster.pid == 0 ? "" : ", process " + std::to_string(poster.pid) + " (" + poster.program + ")");
}

} // namespace

PostApplier::PostApplier(const Options& options, Guard& guard, Refusals& refusals, DeviceState& state,
                         OwnedValues& ownedValues, Outbox& outbox)
    : mOptions(options), mGuard(guard), mRefusals(refusals), mState(state), mOwnedValues(ownedValues),
      mOutbox(outbox), mSelf(state.posters().add(self(guard.users())))
{
}

void PostApplier::apply(const PostConnection& client, std::string_view post)
{
    ++mCount;
    if (!mGuard.quotas().mayPost(client)) // before the work of reading it
        return;
    if (post == BrokerProtocol::syncWord)
        return mOutbox.publish(BrokerProtocol::syncWord, 0);
    if (!mCommand.readPost(post))
        return refuse(post);
    Quotas::charge(client, mCommand.members.size() + mCommand.texts.size());
    apply(client, mCommand);
}

// The library loses the end of texts whose length is a multiple of its frame size: their last frame is then
// empty.
void PostApplier::refuse(std::string_view post)
{
    const bool isCutOff = BrokerProtocol::losesItsEnd(post.size());
    mRefusals.report(
        Refusal::MalformedPost, "Malformed post [%.*s] refused%s", excerptLength(post), post.data(),
        isCutOff ? ", which seems to lack its last 512 bytes: its length is a multiple of that" : "");
}

void PostApplier::apply(const PostConnection& client, BrokerProtocol::Command& command)
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
        publish(Key::statusUpdate, mState.post(command.members, client.poster), 0);
        return mOwnedValues.isUsed() ? mOwnedValues.posted(client.poster, command.members) : void();
    case Operation::ResetStatus:
        mGuard.keepAllowed(client, Action::Reset, command.texts, [](std::string_view key) { return key; });
        publish(Key::statusUpdate, mState.reset(command.texts, client.poster), 0);
        return mOwnedValues.isUsed() ? mOwnedValues.reset(client.poster, command.texts) : void();
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
    case Operation::GetStatusDetails:
    case Operation::ForgetStatus:
    case Operation::ForgetTimers:
    case Operation::ForgetCounters:
    case Operation::GetTimers:
    case Operation::GetCounters:
    case Operation::SetTimer:
        return; // not posts
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
        return mRefusals.report(
            Refusal::SystemTime,
            "Setting the system time to %u refused: the broker runs without --allow-set-time", seconds);
    if (seconds < STATUSBROKER_BUILD_TIME)
        return mRefusals.report(
            Refusal::SystemTime,
            "Setting the system time to %u refused: that is before this program was built", seconds);
    timeval time{};
    time.tv_sec = static_cast<decltype(time.tv_sec)>(seconds);
    if (settimeofday(&time, nullptr) != 0)
        mRefusals.report(Refusal::SystemTime, "Failed to set the system time to %u: %s", seconds,
                         strerror(errno));
}

void PostApplier::endValues(Posters::Id owner, const PolicyTie& rule,
                            const std::vector<std::string_view>& keys)
{
    DeviceState::Members values; // the values that still exist
    for (const std::string_view key : keys)
    {
        const DeviceState::Value* value = mState.find(key);
        if (value == nullptr || value->text == rule.becomes)
            continue;
        values.push_back({key, rule.becomes});
    }
    if (values.empty())
        return;
    const bool isAudit = mGuard.policy().isAudit();
    const std::string name = textOf(mState.posters().at(owner));
    mRefusals.report(isAudit ? Refusal::Audited : Refusal::OwnerGone,
                     "%s [%.*s] and %zu others to [%.*s], by %s, as their owner has gone: %s",
                     isAudit ? "Would set" : "Set", excerptLength(values.front().name),
                     values.front().name.data(), values.size() - 1, excerptLength(rule.becomes),
                     rule.becomes.data(), rule.place.c_str(), name.c_str());
    if (isAudit)
        return;
    publish(BrokerProtocol::Key::statusUpdate, mState.end(values, mSelf), 0);
    // There may be no room for the text. There is always room for the empty text.
    values.erase(std::remove_if(values.begin(), values.end(),
                                [this](const BrokerProtocol::Member& value)
                                { return mState.valueOf(value.name) == value.value; }),
                 values.end());
    for (BrokerProtocol::Member& value : values)
        value.value = {};
    publish(BrokerProtocol::Key::statusUpdate, mState.end(values, mSelf), 0);
}
