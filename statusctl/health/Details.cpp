#include "statusctl/health/Details.h"

#include <algorithm>

#include "protocol/ClientDocuments.h"
#include "statusctl/base/Failure.h"
#include "statusctl/health/Requester.h"
#include "statusctl/text/Json.h"

namespace
{

namespace Member = BrokerProtocol::DetailMember;

// A request may name this many keys, and stays far below the longest message.
constexpr std::size_t mostKeys = 1000;
constexpr std::size_t mostBytes = std::size_t{64} * 1024;

Details detailsIn(const Json::Value& object)
{
    Details details;
    details.value = Answer::textIn(object, Member::value);
    details.posted = Answer::numberIn(object, Member::posted);
    details.changed = Answer::numberIn(object, Member::changed);
    details.posts = Answer::numberIn(object, Member::posts);
    details.changes = Answer::numberIn(object, Member::changes);
    details.poster = Answer::posterIn(object[Member::poster]);
    details.changer =
        object.isMember(Member::changer) ? Answer::posterIn(object[Member::changer]) : details.poster;
    return details;
}

void read(const std::string& reply, Details::ByKey& into)
{
    const Json::Value answer = Answer::objectIn(reply);
    const Json::Value& values = answer[BrokerProtocol::Key::statusDetails];
    if (!values.isObject())
        throw Failure(ExitCode::BadReply, "this broker does not report when values were posted");
    for (auto value = values.begin(); value != values.end(); ++value)
    {
        if (!value->isObject())
            Answer::failToRead(reply);
        into[value.name()] = detailsIn(*value);
    }
}

} // namespace

Details::ByKey Details::of(const Settings& settings, const StatusKeys& keys)
{
    ByKey all;
    Requester requester(settings);
    auto next = keys.begin();
    do // at least once, to notice a broker that does not know the request
    {
        BrokerProtocol::Texts chunk;
        for (std::size_t bytes = 0; next != keys.end() && chunk.size() < mostKeys && bytes < mostBytes;
             ++next)
        {
            chunk.push_back(*next);
            bytes += next->size();
        }
        read(requester.ask(BrokerProtocol::writeList(BrokerProtocol::Key::getStatusDetails, chunk)), all);
    } while (next != keys.end());
    return all;
}
