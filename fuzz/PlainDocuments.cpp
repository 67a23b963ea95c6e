// Fuzzes documents that are read without JsonCpp: the result must always be JsonCpp's.

#include <json/json.h>

#include "fuzz/Fuzz.h"
#include "protocol/PlainDocument.h"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

using PlainDocument::Members;

namespace
{

bool isReadSo(const Json::Value& object, const Members& members)
{
    if (!object.isObject() || object.size() != members.size())
        return false;
    for (const auto& [name, value] : members)
    {
        if (!object.isMember(name) || object[name] != Json::Value(value))
            return false;
    }
    return true;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text = Fuzz::textOf(data, size);
    const auto content = PlainDocument::read(text);
    const auto members = PlainDocument::readMembers(text);
    if (!content && !members)
        return 0;
    Json::Value root;
    Fuzz::require(Json::Reader().parse(text, root, false) && root.isObject(), "JsonCpp reads it");
    Fuzz::require(!members || isReadSo(root, *members), "JsonCpp reads the same members");
    if (!content)
        return 0;
    Fuzz::require(root.size() == 1 && root.begin().name() == content->key, "JsonCpp reads the same key");
    Fuzz::require(content->text ? *root.begin() == Json::Value(*content->text)
                                : isReadSo(*root.begin(), content->members),
                  "JsonCpp reads the same payload");
    return 0;
}
