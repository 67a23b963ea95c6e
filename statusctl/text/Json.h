#ifndef STATUSCTL_TEXT_JSON_H
#define STATUSCTL_TEXT_JSON_H

#include <json/value.h>
#include <optional>
#include <string>

#include "statusctl/base/Settings.h"
#include "statusmanager/StatusTypes.h"

/// The JSON that the tool writes and reads. JSON carries only UTF-8. Another text is written as base64, under
/// another name.
namespace JsonText
{

/// Writes UTF-8, and escapes characters that Text::escaped() would escape.
std::string write(const Json::Value& value, Settings::Json style);

/// Sets `name` to the text, or `name` + "Base64" if the text is not UTF-8.
void set(Json::Value& object, const std::string& name, const std::string& text);

/// Reads the text that set() wrote. Nothing if both members are missing or of another type.
std::optional<std::string> get(const Json::Value& object, const std::string& name);

/// {"values":{KEY:VALUE,...},"base64":{KEY:BASE64,...}}, without "base64" if all values are UTF-8.
Json::Value ofValues(const StatusMap& values);

/// Reads the output of ofValues(). Ignores other members.
/// @throws Failure, with the reason, if the shape differs
StatusMap readValues(const Json::Value& root);

/// @throws Failure if the text is not an object
Json::Value readRoot(const std::string& text);

/// Reads an object. Nothing if the text is not exactly one object.
std::optional<Json::Value> readObject(const std::string& text);

} // namespace JsonText

#endif
