#include "broker/NotificationFilter.h"

#include <algorithm>
#include <string_view>

#include "broker/Guard.h"
#include "protocol/Words.h"

namespace
{

const char* updateKey(BrokerProtocol::Operation operation)
{
    return operation == BrokerProtocol::Operation::PostEvent ? BrokerProtocol::Key::eventUpdate
                                                             : BrokerProtocol::Key::statusUpdate;
}

} // namespace

const std::string& NotificationFilter::partFor(Connection& client, NotificationLog::Position begin,
                                               NotificationLog::Position end)
{
    const FilteredMessages::Key key{begin, client.rights};
    const std::string* text = mParts.find(key);
    return text != nullptr ? *text : mParts.add(key, find(client, begin, end));
}

std::string NotificationFilter::find(Connection& client, NotificationLog::Position begin,
                                     NotificationLog::Position end)
{
    constexpr std::string_view sync = BrokerProtocol::syncWord;
    std::string copied;
    const bool isSync = mLog.beginning(begin, sync.size() + 1, copied) == sync;
    if (!isSync && mGuard.hidesAll(client))
        return {};
    std::string text = mLog.text(begin, end);
    if (isSync)
        return text;
    if (!mUpdate.readUpdate(text))
        return {};
    auto& members = mUpdate.members;
    const auto isHidden = [&](const BrokerProtocol::Member& member)
    { return !mGuard.shows(client, member.name); };
    const auto shown = std::remove_if(members.begin(), members.end(), isHidden);
    if (shown == members.end() && !members.empty())
        return text;
    members.erase(shown, members.end());
    std::string rest;
    if (!members.empty())
        BrokerProtocol::appendUpdate(rest, updateKey(mUpdate.operation), members);
    return rest;
}
