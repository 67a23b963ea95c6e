#include "statusctl/text/Json.h"

#include <json/reader.h>
#include <json/writer.h>
#include <memory>

#include "protocol/Utf8.h"
#include "statusctl/base/Failure.h"
#include "statusctl/text/Text.h"

namespace
{

constexpr const char* base64Suffix = "Base64";

std::string textOf(const Json::Value& value, const std::string& key)
{
    if (!value.isString())
        throw Failure(ExitCode::Failed, "the value of \"" + key + "\" is not a string");
    return value.asString();
}

const Json::Value& memberOf(const Json::Value& root, const char* name)
{
    const Json::Value& member = root[name];
    if (!member.isNull() && !member.isObject())
        throw Failure(ExitCode::Failed, std::string("\"") + name + "\" is not an object");
    return member;
}

} // namespace

std::string JsonText::write(const Json::Value& value, Settings::Json style)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = style == Settings::Json::Pretty ? "  " : "";
    builder["emitUTF8"] = true;
    return Text::escapedInJson(Json::writeString(builder, value));
}

void JsonText::set(Json::Value& object, const std::string& name, const std::string& text)
{
    if (Utf8::isValid(text))
        object[name] = text;
    else
        object[name + base64Suffix] = Text::base64(text);
}

std::optional<std::string> JsonText::get(const Json::Value& object, const std::string& name)
{
    const Json::Value& plain = object[name];
    if (plain.isString())
        return plain.asString();
    const Json::Value& encoded = object[name + base64Suffix];
    std::string bytes;
    if (encoded.isString() && Text::readBase64(encoded.asString(), bytes))
        return bytes;
    return std::nullopt;
}

Json::Value JsonText::ofValues(const StatusMap& values)
{
    Json::Value root(Json::objectValue);
    root["values"] = Json::Value(Json::objectValue);
    for (const auto& [key, value] : values)
    {
        if (Utf8::isValid(value))
            root["values"][Text::valid(key)] = value;
        else
            root["base64"][Text::valid(key)] = Text::base64(value);
    }
    return root;
}

Json::Value JsonText::readRoot(const std::string& text)
{
    std::optional<Json::Value> root = readObject(text);
    if (!root)
        throw Failure(ExitCode::Failed, "not a JSON object");
    return std::move(*root);
}

StatusMap JsonText::readValues(const Json::Value& root)
{
    StatusMap values;
    const Json::Value& plain = memberOf(root, "values");
    const Json::Value& encoded = memberOf(root, "base64");
    if (plain.isNull() && encoded.isNull())
        throw Failure(ExitCode::Failed, R"(missing "values", as "statusctl dump --json" writes them)");
    for (const std::string& key : plain.getMemberNames())
        values[key] = textOf(plain[key], key);
    for (const std::string& key : encoded.getMemberNames())
    {
        if (plain.isMember(key))
            throw Failure(ExitCode::Failed, "\"" + key + "\" is in \"values\" and in \"base64\"");
        if (!Text::readBase64(textOf(encoded[key], key), values[key]))
            throw Failure(ExitCode::Failed, "the value of \"" + key + "\" is not base64");
    }
    return values;
}

std::optional<Json::Value> JsonText::readObject(const std::string& text)
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try
    {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, nullptr) || !root.isObject())
            return std::nullopt;
    }
    catch (const Json::Exception&) // nested too deeply
    {
        return std::nullopt;
    }
    return root;
}
