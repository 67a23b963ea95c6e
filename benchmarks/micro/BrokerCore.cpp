#include "benchmarks/micro/BrokerCore.h"

#include <stdexcept>
#include <utility>

#include "benchmarks/micro/Samples.h"
#include "protocol/ClientDocuments.h"

namespace Key = BrokerProtocol::Key;

BrokerCore::BrokerCore(std::size_t keys, std::unique_ptr<const Policy> policy)
    : mGuard(mIdentities, mRefusals, std::move(policy))
{
    mGuard.admit(mClient);
    post(BrokerProtocol::writeMap(Key::postStatus, Samples::values(keys)));
    if (mDevice.keys() != keys)
        throw std::logic_error("not all keys were stored");
}

bool BrokerCore::post(std::string_view text)
{
    if (!mCommand.readPost(text))
        throw std::logic_error("a post cannot be read");
    const bool isStatus = mCommand.operation == BrokerProtocol::Operation::PostStatus;
    mGuard.keepAllowed(mClient, isStatus ? Action::Post : Action::Event, mCommand.members,
                       [](const BrokerProtocol::Member& member) { return member.name; });
    const DeviceState::Members& members =
        isStatus ? mDevice.post(mCommand.members) : mDevice.events(mCommand.members);
    if (members.empty())
        return false;
    mNotification.clear();
    BrokerProtocol::appendUpdate(mNotification, isStatus ? Key::statusUpdate : Key::eventUpdate, members);
    mLog.append(mNotification, mDevice.revision(), isStatus ? 0 : members.size());
    mLog.trim();
    return true;
}

const std::string& BrokerCore::ask(std::string_view text)
{
    constexpr std::size_t piece = 8192;
    mAnswer.clear();
    Reply reply = mAnswerer.answer(mClient, text);
    while (!reply.produce(mDevice, {}, piece, mAnswer))
    {
    }
    return mAnswer;
}
