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
    const Json::Value answer = Answer::objectIn(reply);
    const Json::Value& list = answer[BrokerProtocol::Key::forgotten];
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

// Reads the answer to a request for all timers or all counters: an object with an entry for each.
Json::Value listIn(const std::string& reply, const char* key)
{
    Json::Value answer = Answer::objectIn(reply);
    if (!answer[key].isObject())
        throw Failure(ExitCode::BadReply, std::string("this broker does not list its ") + key);
    return answer[key];
}

BrokerProtocol::TimerReading timerIn(const Json::Value& object)
{
    namespace Member = BrokerProtocol::TimerMember;
    return {Answer::numberIn(object, Member::elapsed), Answer::numberIn(object, Member::lastStarted),
            Answer::numberIn(object, Member::running) != 0};
}

BrokerProtocol::Texts textsOf(const std::string& name, const BrokerProtocol::TimerReading& timer)
{
    return {Text::valid(name), std::to_string(timer.elapsed), std::to_string(timer.lastStarted),
            timer.isRunning ? BrokerProtocol::timerRuns : BrokerProtocol::timerStands};
}

// Reads the answer to a request to set a timer: the timer's time, or an empty object after a refusal.
bool isSet(const std::string& reply)
{
    if (!reply.empty() && reply.find_first_not_of("0123456789") == std::string::npos)
        return true;
    if (!Answer::objectIn(reply).empty())
        Answer::failToRead(reply);
    return false;
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
    constexpr std::chrono::seconds patience{2};
    constexpr std::chrono::milliseconds pause{10};
    const std::string request = BrokerProtocol::writeText(BrokerProtocol::Key::getBrokerClients, "null");
    const auto end = std::chrono::steady_clock::now() + patience;
    Requester requester(settings);
    for (;;)
    {
        const std::string reply = requester.ask(request);
        const Json::Value answer = Answer::objectIn(reply);
        const Json::Value& list = answer[Member::clients];
        if (!list.isArray())
            throw Failure(ExitCode::BadReply, "this broker does not list its clients");
        if (Answer::numberIn(answer, Member::complete) == 0 && std::chrono::steady_clock::now() < end)
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
    const Json::Value answer = Answer::objectIn(reply);
    if (const std::string error = Answer::textIn(answer, Member::error); !error.empty())
        throw Failure(ExitCode::WrongUsage, error);
    const std::string allowed = Answer::textIn(answer, Member::allowed);
    if (allowed.empty())
        throw Failure(ExitCode::BadReply, "this broker has no policy");
    return {allowed == "yes", Answer::textIn(answer, Member::reason)};
}

std::vector<std::string> Inquiry::forget(const Settings& settings, Kind kind,
                                         const std::vector<std::string>& names)
{
    namespace Key = BrokerProtocol::Key;
    constexpr std::size_t enough = 900; // bytes in a request: the broker answers short requests first
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
            some.push_back(Text::valid(names[next])); // the broker stores posted names like this
            bytes += names[next].size() + 3;          // quotes and comma
        }
        const std::vector<std::string> answered =
            forgottenIn(requester.ask(BrokerProtocol::writeList(key, some)));
        gone.insert(gone.end(), answered.begin(), answered.end());
    }
    return gone;
}

Inquiry::Timers Inquiry::timers(const Settings& settings)
{
    namespace Key = BrokerProtocol::Key;
    const std::string reply = Requester(settings).ask(BrokerProtocol::writeText(Key::getTimers, "null"));
    const Json::Value list = listIn(reply, Key::timers);
    Timers timers;
    for (auto timer = list.begin(); timer != list.end(); ++timer)
    {
        if (!timer->isObject())
            Answer::failToRead(reply);
        timers[timer.name()] = timerIn(*timer);
    }
    return timers;
}

Inquiry::Counters Inquiry::counters(const Settings& settings)
{
    namespace Key = BrokerProtocol::Key;
    const std::string reply = Requester(settings).ask(BrokerProtocol::writeText(Key::getCounters, "null"));
    const Json::Value list = listIn(reply, Key::counters);
    Counters counters;
    for (auto counter = list.begin(); counter != list.end(); ++counter)
    {
        if (!counter->isUInt())
            Answer::failToRead(reply);
        counters[counter.name()] = counter->asUInt();
    }
    return counters;
}

std::vector<std::string> Inquiry::setTimers(const Settings& settings, const Timers& timers)
{
    std::vector<std::string> refused;
    if (timers.empty())
        return refused;
    Requester requester(settings);
    for (const auto& [name, timer] : timers)
    {
        const std::string request =
            BrokerProtocol::writeList(BrokerProtocol::Key::setTimer, textsOf(name, timer));
        if (!isSet(requester.ask(request)))
            refused.push_back(name);
    }
    return refused;
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
