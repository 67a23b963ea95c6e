#include "statusctl/device/Change.h"

#include <algorithm>
#include <array>
#include <utility>

#include "statusctl/text/Json.h"

namespace
{

constexpr std::array<std::pair<Change::Kind, const char*>, 8> names{{
    {Change::Kind::Initial, "initial"},
    {Change::Kind::Synced, "synced"},
    {Change::Kind::Changed, "changed"},
    {Change::Kind::Reset, "reset"},
    {Change::Kind::Event, "event"},
    {Change::Kind::Stale, "stale"},
    {Change::Kind::Lost, "lost"},
    {Change::Kind::Gone, "gone"},
}};

} // namespace

const char* nameOf(Change::Kind kind)
{
    return std::find_if(names.begin(), names.end(), [kind](const auto& name) { return name.first == kind; })
        ->second;
}

Json::Value toJson(const Change& change)
{
    Json::Value object(Json::objectValue);
    object["time"] = Timestamp::utc(change.time);
    object["kind"] = nameOf(change.kind);
    if (isMark(change.kind))
        return object;
    JsonText::set(object, "name", change.name);
    JsonText::set(object, "value", change.value);
    return object;
}

std::optional<Change> readChange(const std::string& text)
{
    const std::optional<Json::Value> object = JsonText::readObject(text);
    if (!object || !(*object)["time"].isString() || !(*object)["kind"].isString())
        return std::nullopt;
    const std::optional<Timestamp::Time> time = Timestamp::read((*object)["time"].asString());
    const std::string kind = (*object)["kind"].asString();
    const auto* const known =
        std::find_if(names.begin(), names.end(), [&](const auto& name) { return name.second == kind; });
    if (!time || known == names.end())
        return std::nullopt;
    const std::optional<std::string> name = JsonText::get(*object, "name");
    const std::optional<std::string> value = JsonText::get(*object, "value");
    if (!isMark(known->first) && (!name || !value))
        return std::nullopt;
    return Change{*time, known->first, name.value_or(""), value.value_or("")};
}
