#include "statusctl/health/Inquiry.h"

#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "statusctl/base/Failure.h"
#include "statusctl/health/Requester.h"
#include "statusctl/text/Json.h"
#include "statusctl/text/Text.h"

using BrokerProtocol::Client;

namespace
{

Client clientIn(const Json::Value& object)
{
    namespace Member = BrokerProtocol::ClientMember;
    Client client;
    static_cast<BrokerProtocol::Poster&>(client) = Answer::posterIn(object);
    client.isShared = Answer::numberIn(object, Member::shared) != 0;
    client.since = Answer::numberIn(object, Member::since);
    client.connections = Answer::numberIn(object, Member::connections);
    client.posts = Answer::numberIn(object, Member::posts);
    client.requests = Answer::numberIn(object, Member::requests);
    client.queued = Answer::numberIn(object, Member::queued);
    client.refusals = Answer::numberIn(object, Member::refusals);
    client.received = Answer::numberIn(object, Member::received);
    client.sent = Answer::numberIn(object, Member::sent);
    return client;
}

std::vector<std::string> forgottenIn(const std::string& reply)
{
    const std::optional<Json::Value> answer = JsonText::readObject(reply);
    if (!answer)
        Answer::failToRead(reply);
    const Json::Value& list = (*answer)[BrokerProtocol::Key::forgotten];
    if (!list.isArray())
        throw Failure(ExitCode::BadReply, "this broker cannot forget names");
    std::vector<std::string> names;
    for (const Json::Value& each : list)
    {
        if (!each.isString())
            Answer::failToRead(reply);
        names.push_back(each.asString());
    }
    return names;
}

} // namespace

BrokerProtocol::Statistics Inquiry::statistics(const Settings& settings)
{
    const std::string reply = Requester(settings).ask(BrokerProtocol::writeGetBrokerStatistics());
    const auto statistics = BrokerProtocol::readStatisticsReply(reply);
    if (!statistics)
        Answer::failToRead(reply);
    if (statistics->empty())
        throw Failure(ExitCode::BadReply, "this broker keeps no statistics");
    return *statistics;
}

std::vector<Client> Inquiry::clients(const Settings& settings)
{
    namespace Member = BrokerProtocol::ClientMember;
    constexpr std::chrono::milliseconds patience{500};
    constexpr std::chrono::milliseconds pause{10};
    const std::string request = BrokerProtocol::writeText(BrokerProtocol::Key::getBrokerClients, "null");
    const auto end = std::chrono::steady_clock::now() + patience;
    Requester requester(settings);
    for (;;)
    {
        const std::string reply = requester.ask(request);
        const std::optional<Json::Value> answer = JsonText::readObject(reply);
        if (!answer)
            Answer::failToRead(reply);
        const Json::Value& list = (*answer)[Member::clients];
        if (!list.isArray())
            throw Failure(ExitCode::BadReply, "this broker does not tell who uses it");
        if (Answer::numberIn(*answer, Member::complete) == 0 && std::chrono::steady_clock::now() < end)
        {
            std::this_thread::sleep_for(pause);
            continue;
        }
        std::vector<Client> clients;
        for (const Json::Value& each : list)
        {
            if (!each.isObject())
                Answer::failToRead(reply);
            clients.push_back(clientIn(each));
        }
        return clients;
    }
}

Inquiry::Decision Inquiry::decision(const Settings& settings, const std::string& client,
                                    const std::string& action, const std::string& name)
{
    namespace Member = BrokerProtocol::DecisionMember;
    const std::string reply = Requester(settings).ask(
        BrokerProtocol::writeList(BrokerProtocol::Key::getPolicyDecision, {client, action, name}));
    const std::optional<Json::Value> answer = JsonText::readObject(reply);
    if (!answer)
        Answer::failToRead(reply);
    if (const std::string error = Answer::textIn(*answer, Member::error); !error.empty())
        throw Failure(ExitCode::WrongUsage, error);
    const std::string allowed = Answer::textIn(*answer, Member::allowed);
    if (allowed.empty())
        throw Failure(ExitCode::BadReply, "this broker has no policy");
    return {allowed == "yes", Answer::textIn(*answer, Member::reason)};
}

std::vector<std::string> Inquiry::forget(const Settings& settings, Kind kind,
                                         const std::vector<std::string>& names)
{
    namespace Key = BrokerProtocol::Key;
    constexpr std::size_t enough = 900; // bytes in a request: the broker answers short ones first
    const char* key = Key::forgetStatus;
    if (kind == Kind::Timers)
        key = Key::forgetTimers;
    else if (kind == Kind::Counters)
        key = Key::forgetCounters;
    std::vector<std::string> gone;
    Requester requester(settings);
    for (std::size_t next = 0; next < names.size();)
    {
        BrokerProtocol::Texts some;
        for (std::size_t bytes = 0; next < names.size() && bytes < enough; ++next)
        {
            some.push_back(Text::valid(names[next])); // as posts are
            bytes += names[next].size() + 3;          // quotes and comma
        }
        const std::vector<std::string> answered =
            forgottenIn(requester.ask(BrokerProtocol::writeList(key, some)));
        gone.insert(gone.end(), answered.begin(), answered.end());
    }
    return gone;
}

std::string Inquiry::versionIn(const BrokerProtocol::Statistics& statistics)
{
    std::string version;
    for (const char* part : {"version.major", "version.minor", "version.patch"})
    {
        const auto number = statistics.find(part);
        version +=
            (version.empty() ? "" : ".") + std::to_string(number == statistics.end() ? 0 : number->second);
    }
    return version;
}
