#include "statusctl/health/Backup.h"

#include "statusctl/base/Failure.h"
#include "statusctl/text/Json.h"

namespace
{

namespace Key = BrokerProtocol::Key;
namespace Member = BrokerProtocol::TimerMember;

[[noreturn]] void fail(const std::string& name, const char* problem)
{
    throw Failure(ExitCode::Failed, "\"" + name + "\" " + problem);
}

// Calls read(name, value) for each member. Returns false if the object is missing.
template <typename Read>
bool readMembers(const Json::Value& root, const char* key, Read read)
{
    const Json::Value& members = root[key];
    if (members.isNull())
        return false;
    if (!members.isObject())
        fail(key, "is not an object");
    for (auto member = members.begin(); member != members.end(); ++member)
        read(member.name(), *member);
    return true;
}

uint64_t timeIn(const Json::Value& timer, const char* name)
{
    const Json::Value& time = timer[name];
    if (!time.isUInt64() || time.asUInt64() > BrokerProtocol::mostTimerMicroseconds)
        fail(name, "of a timer is not a number of microseconds");
    return time.asUInt64();
}

BrokerProtocol::TimerReading timerIn(const std::string& name, const Json::Value& timer)
{
    if (!timer.isObject() || !timer[Member::running].isBool())
        fail(name, "is not a timer");
    return {timeIn(timer, Member::elapsed), timeIn(timer, Member::lastStarted),
            timer[Member::running].asBool()};
}

} // namespace

Backup Backup::read(const std::string& text)
{
    const Json::Value root = JsonText::readRoot(text);
    Backup backup;
    Inquiry::Timers timers;
    Inquiry::Counters counters;
    if (readMembers(root, Key::timers,
                    [&](const std::string& name, const Json::Value& timer)
                    { timers[name] = timerIn(name, timer); }))
        backup.timers = std::move(timers);
    const auto readCounter = [&](const std::string& name, const Json::Value& counter)
    {
        if (!counter.isUInt())
            fail(name, "is not the number of a counter");
        counters[name] = counter.asUInt();
    };
    if (readMembers(root, Key::counters, readCounter))
        backup.counters = std::move(counters);
    backup.values = JsonText::readValues(root);
    return backup;
}

Json::Value Backup::toJson() const
{
    Json::Value root = JsonText::ofValues(values);
    if (timers)
        root[Key::timers] = MeasuresJson::of(*timers);
    if (counters)
        root[Key::counters] = MeasuresJson::of(*counters);
    return root;
}

std::size_t Backup::names() const
{
    return values.size() + (timers ? timers->size() : 0) + (counters ? counters->size() : 0);
}

Json::Value MeasuresJson::of(const Inquiry::Timers& timers)
{
    Json::Value list(Json::objectValue);
    for (const auto& [name, timer] : timers)
    {
        Json::Value& object = list[name];
        object[Member::elapsed] = static_cast<Json::UInt64>(timer.elapsed);
        object[Member::lastStarted] = static_cast<Json::UInt64>(timer.lastStarted);
        object[Member::running] = timer.isRunning;
    }
    return list;
}

Json::Value MeasuresJson::of(const Inquiry::Counters& counters)
{
    Json::Value list(Json::objectValue);
    for (const auto& [name, counter] : counters)
        list[name] = counter;
    return list;
}
