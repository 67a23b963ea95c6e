#include "broker/Forgetting.h"

#include <algorithm>

namespace
{

// Most subscribers receive the reset within milliseconds. For a stopped one, the checks become rarer.
constexpr std::chrono::milliseconds shortestPause{10};
constexpr std::chrono::milliseconds longestPause{1000};

} // namespace

std::string Forgetting::forget(const Connection& client, BrokerProtocol::Command& command)
{
    if (!mGuard.quotas().mayPost(client))
        command.texts.clear();
    Quotas::charge(client, command.texts.size()); // denied names count, too, as each is work
    mGuard.keepAllowed(client, Action::Forget, command.texts, [](std::string_view name) { return name; });
    if (!command.texts.empty() && !mOutbox.mayForget())
    {
        mRefusals.report(Refusal::Memory,
                         "Forgetting names refused: too many wait for the state file to be written");
        command.texts.clear();
    }
    const std::vector<std::string_view> gone = forgetNames(command);
    std::string answer;
    BrokerProtocol::appendList(answer, BrokerProtocol::Key::forgotten, gone);
    return answer;
}

std::vector<std::string_view> Forgetting::forgetNames(const BrokerProtocol::Command& command)
{
    using BrokerProtocol::Operation;
    switch (command.operation)
    {
    case Operation::ForgetStatus:
        return forgetValues(command.texts);
    case Operation::ForgetTimers:
        return mState.forgetTimers(command.texts);
    case Operation::ForgetCounters:
        return mState.forgetCounters(command.texts);
    default:
        return {}; // names are never removed by mistake
    }
}

std::vector<std::string_view> Forgetting::forgetValues(const std::vector<std::string_view>& keys)
{
    DeviceState::Forgotten forgotten = mState.forgetValues(keys);
    mOwnedValues.forget(forgotten.names);
    if (!forgotten.names.empty())
    {
        mNextLook = TimePoint();
        mPause = shortestPause;
    }
    if (!forgotten.resets.empty())
    {
        std::string notification;
        BrokerProtocol::appendUpdate(notification, BrokerProtocol::Key::statusUpdate, forgotten.resets);
        mOutbox.publish(notification, 0);
    }
    return std::move(forgotten.names);
}

void Forgetting::dropWhatAllKnow(TimePoint now)
{
    if (now < due())
        return;
    if (mState.dropForgotten(mNotify.toldToAll(now)) != 0)
        mPause = shortestPause;
    mNextLook = now + mPause;
    mPause = std::min(2 * mPause, longestPause);
}
