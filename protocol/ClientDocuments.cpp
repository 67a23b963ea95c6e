#include "protocol/ClientDocuments.h"

#include <algorithm>
#include <cstdlib>
#include <json/json.h>
#include <new>

#include "protocol/PlainDocument.h"

// Json::Reader and Json::FastWriter are deprecated, but their exact behaviour is the wire format: what they
// accept, and that they write no white space. They are also faster than their successors.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace BrokerProtocol
{

namespace
{

// JsonCpp handles only documents that are not plain; see PlainDocument.h.

// Writes the value that `make` returns. JsonCpp may report a lack of memory by an exception of its own.
template <class Make>
std::string write(Make make)
{
    try
    {
        Json::FastWriter writer;
        writer.omitEndingLineFeed();
        return writer.write(make());
    }
    catch (const Json::RuntimeError&)
    {
        throw std::bad_alloc();
    }
}

// Writes the value that `make` returns as the one member `key` of an object.
template <class Make>
std::string writeDocument(const char* key, Make make)
{
    return write(
        [&]
        {
            Json::Value root(Json::objectValue);
            root[key] = make();
            return root;
        });
}

Json::Value objectOf(const Members& values)
{
    Json::Value object(Json::objectValue);
    for (const auto& [name, value] : values)
        object[name] = value;
    return object;
}

// JsonCpp reads 1,000 levels.
bool mayBeNestedTooDeep(const std::string& text)
{
    constexpr int fewestLevels = 1000;
    return std::count_if(text.begin(), text.end(), [](char each) { return each == '[' || each == '{'; }) >=
           fewestLevels;
}

// Reads any JSON value; returns nothing if the text is not JSON. JsonCpp throws the same exception when the
// nesting is too deep and when memory runs out.
std::optional<Json::Value> parse(const std::string& text)
{
    Json::Value root;
    try
    {
        Json::Reader reader;
        if (!reader.parse(text, root, false))
            return std::nullopt;
    }
    catch (const Json::Exception&)
    {
        if (!mayBeNestedTooDeep(text))
            throw std::bad_alloc();
        return std::nullopt;
    }
    return root;
}

// Reads a JSON object; returns nothing for other values, because JsonCpp throws when they are asked for
// members.
std::optional<Json::Value> parseObject(const std::string& text)
{
    std::optional<Json::Value> root = parse(text);
    return root && root->isObject() ? std::move(root) : std::nullopt;
}

// Null and the empty array count as objects without members, like {}.
bool isWithoutMembers(const Json::Value& value)
{
    return value.isNull() || (value.isArray() && value.empty());
}

bool isScalar(const Json::Value& value)
{
    return !value.isArray() && !value.isObject();
}

// Returns the members as text; nothing if the value cannot have members or a member is nested.
std::optional<Members> membersOf(const Json::Value& object)
{
    if (isWithoutMembers(object))
        return Members();
    if (!object.isObject() || !std::all_of(object.begin(), object.end(), isScalar))
        return std::nullopt;
    Members members;
    for (auto member = object.begin(); member != object.end(); ++member)
        members.emplace_hint(members.end(), member.name(), member->asString());
    return members;
}

} // namespace

std::string writeText(const char* key, const std::string& text)
{
    std::optional<std::string> plain = PlainDocument::write(key, text);
    return plain ? std::move(*plain) : writeDocument(key, [&] { return Json::Value(text); });
}

std::string writeList(const char* key, const Texts& texts)
{
    return writeDocument(key,
                         [&]
                         {
                             Json::Value list(Json::arrayValue);
                             for (const std::string& text : texts)
                                 list.append(text);
                             return list;
                         });
}

std::string writeMap(const char* key, const Members& values)
{
    std::optional<std::string> plain = PlainDocument::write(key, values);
    return plain ? std::move(*plain) : writeDocument(key, [&] { return objectOf(values); });
}

std::string writeUpdateSystemTime(uint32_t seconds)
{
    return writeDocument(Key::updateSystemTime,
                         [&] { return Json::Value(static_cast<Json::UInt>(seconds)); });
}

std::string writePostEvent(const std::string& name, const std::string& value)
{
    return writeMap(Key::postEvent, {{name, value}});
}

std::string writeSetCounterValue(const std::string& name, uint32_t value)
{
    return writeDocument(Key::setCounterValue,
                         [&]
                         {
                             Json::Value counter(Json::objectValue);
                             counter[name] = static_cast<Json::UInt>(value);
                             return counter;
                         });
}

std::string writeGetClientInfo()
{
    return writeText(Key::getClientInfo, "null");
}

std::optional<Members> readMapReply(const std::string& reply)
{
    if (std::optional<Members> members = PlainDocument::readMembers(reply))
        return members;
    const std::optional<Json::Value> root = parse(reply);
    return root ? membersOf(*root) : std::nullopt;
}

std::optional<std::string> readStatusValueReply(const std::string& reply)
{
    std::optional<PlainDocument::Content> plain = PlainDocument::read(reply);
    if (plain && plain->key == Key::statusValue && plain->text)
        return std::move(plain->text);
    const std::optional<Json::Value> root = parse(reply);
    if (root && isWithoutMembers(*root))
        return std::string();
    if (!root || !root->isObject())
        return std::nullopt;
    // For a missing member JsonCpp would return a static object. It is destroyed when the process ends, and
    // an answer may still arrive after that.
    if (!root->isMember(Key::statusValue))
        return std::string();
    const Json::Value& value = (*root)[Key::statusValue];
    if (!isScalar(value))
        return std::nullopt;
    return value.asString();
}

uint64_t readTimerReply(const std::string& reply)
{
    return static_cast<uint64_t>(atoll(reply.c_str()));
}

uint32_t readCounterReply(const std::string& reply)
{
    return static_cast<uint32_t>(atoi(reply.c_str()));
}

Notification readNotification(const std::string& message)
{
    std::optional<PlainDocument::Content> plain = PlainDocument::read(message);
    if (plain && plain->key == Key::statusUpdate && !plain->text)
        return {Notification::Kind::StatusUpdate, std::move(plain->members)};
    if (plain && plain->key == Key::eventUpdate && !plain->text)
        return {Notification::Kind::EventUpdate, std::move(plain->members)};

    const std::optional<Json::Value> root = parse(message);
    if (!root)
        return {};
    const bool isStatus = root->isObject() && root->isMember(Key::statusUpdate);
    const bool isEvent = root->isObject() && root->isMember(Key::eventUpdate);
    if (!isStatus && !isEvent)
        return {Notification::Kind::Unhandled, {}};

    std::optional<Members> members = membersOf((*root)[isStatus ? Key::statusUpdate : Key::eventUpdate]);
    if (!members)
        return {};
    const auto kind = isStatus ? Notification::Kind::StatusUpdate : Notification::Kind::EventUpdate;
    return {kind, std::move(*members)};
}

std::string writeGetBrokerStatistics()
{
    return writeText(Key::getBrokerStatistics, "null");
}

std::optional<Statistics> readStatisticsReply(const std::string& reply)
{
    const std::optional<Json::Value> root = parseObject(reply);
    if (!root)
        return std::nullopt;
    Statistics statistics;
    for (auto member = root->begin(); member != root->end(); ++member)
    {
        if (!member->isUInt64())
            return std::nullopt;
        statistics[member.name()] = member->asUInt64();
    }
    return statistics;
}

} // namespace BrokerProtocol
