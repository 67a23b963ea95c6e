#include "statusctl/verbs/DetailsText.h"

#include <algorithm>
#include <chrono>

#include "statusctl/text/Duration.h"
#include "statusctl/text/Json.h"
#include "statusctl/text/Table.h"
#include "statusctl/text/Text.h"

namespace
{

using BrokerProtocol::Poster;

const char* const unknown = "-";

Timestamp::Time timeOf(uint64_t microseconds)
{
    return Timestamp::Time(std::chrono::microseconds(microseconds));
}

std::string ageOf(uint64_t time, Timestamp::Time now)
{
    return Duration::age(std::chrono::duration_cast<std::chrono::seconds>(now - timeOf(time)));
}

// "2026-11-22T08:12:01.123+01:00 (5s ago)"
std::string when(uint64_t time, Timestamp::Time now)
{
    return time == 0 ? "unknown" : Timestamp::local(timeOf(time)) + " (" + ageOf(time, now) + " ago)";
}

// "net.service, user net, process 12 (netd)"
std::string inFull(const Poster& poster)
{
    std::string text;
    const auto add = [&](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (!poster.service.empty())
        add(Text::escaped(poster.service));
    if (!poster.user.empty())
        add("user " + Text::escaped(poster.user));
    if (poster.pid != 0)
        add("process " + std::to_string(poster.pid) +
            (poster.program.empty() ? "" : " (" + Text::escaped(poster.program) + ")"));
    return text.empty() ? "unknown" : text;
}

Json::Value toJson(const std::string& key, const Details& details)
{
    Json::Value object(Json::objectValue);
    JsonText::set(object, "key", key);
    JsonText::set(object, "value", details.value);
    if (details.posted != 0)
        object["posted"] = Timestamp::utc(timeOf(details.posted));
    if (details.changed != 0)
        object["changed"] = Timestamp::utc(timeOf(details.changed));
    object["posts"] = static_cast<Json::UInt64>(details.posts);
    object["changes"] = static_cast<Json::UInt64>(details.changes);
    object["poster"] = DetailsText::toJson(details.poster);
    object["changer"] = DetailsText::toJson(details.changer);
    return object;
}

void printTable(Output& output, const Details::ByKey& details, Timestamp::Time now)
{
    constexpr auto left = Table::Alignment::Left;
    constexpr auto right = Table::Alignment::Right;
    Table table({{"KEY", left},
                 {"VALUE", left},
                 {"CHANGED", left},
                 {"AGE", right},
                 {"POSTS", right},
                 {"POSTER", left}});
    for (const auto& [key, of] : details)
        table.add({Text::escapedName(key), Text::escaped(Text::cutOff(of.value)),
                   of.changed == 0 ? unknown : Timestamp::local(timeOf(of.changed)),
                   of.posted == 0 ? unknown : ageOf(of.posted, now), std::to_string(of.posts),
                   DetailsText::briefly(of.poster)});
    for (const std::string& line : table.lines())
        output.line(line);
}

} // namespace

Json::Value DetailsText::toJson(const Poster& poster)
{
    Json::Value object(Json::objectValue);
    const auto set = [&](const char* name, const std::string& text)
    {
        if (!text.empty())
            object[name] = Text::valid(text);
    };
    set("service", poster.service);
    set("program", poster.program);
    set("user", poster.user);
    if (poster.uid)
        object["uid"] = *poster.uid;
    if (poster.pid != 0)
        object["pid"] = poster.pid;
    return object;
}

std::string DetailsText::briefly(const Poster& poster)
{
    if (!poster.service.empty())
        return Text::escaped(poster.service);
    const std::string user = poster.user.empty() ? unknown : Text::escaped(poster.user);
    return poster.program.empty() ? user : user + " (" + Text::escaped(poster.program) + ")";
}

void DetailsText::print(Output& output, const std::string& key, const Details& details, Timestamp::Time now)
{
    output.line(Text::escapedName(key));
    output.line("  value    " + Text::escaped(details.value));
    output.line("  posted   " + when(details.posted, now));
    output.line("  changed  " + when(details.changed, now));
    output.line("  posts    " + std::to_string(details.posts));
    output.line("  changes  " + std::to_string(details.changes));
    output.line("  poster   " + inFull(details.poster));
    if (!(details.changer == details.poster))
        output.line("  changer  " + inFull(details.changer));
}

Json::Value DetailsText::toJson(const Details::ByKey& details)
{
    Json::Value list(Json::arrayValue);
    for (const auto& [key, of] : details)
        list.append(::toJson(key, of));
    Json::Value object(Json::objectValue);
    object["details"] = std::move(list);
    return object;
}

void DetailsText::printLong(Output& output, const Settings& settings, const Details::ByKey& details)
{
    if (settings.isJson())
        output.json(toJson(details));
    else
        printTable(output, details, Timestamp::now());
}
