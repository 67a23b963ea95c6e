#ifndef STATUSCTL_TEXT_JSON_H
#define STATUSCTL_TEXT_JSON_H

#include <json/value.h>
#include <optional>
#include <string>

#include "statusctl/base/Settings.h"
#include "statusmanager/StatusTypes.h"

/// The JSON that the tool writes and reads. JSON holds only text that is UTF-8: a value that is not goes as
/// base64 under another name.
namespace JsonText
{

/// UTF-8, with escapes for what Text::escaped() would not show.
std::string write(const Json::Value& value, Settings::Json style);

/// Sets `name` to the text, or `name` + "Base64" where it is not UTF-8.
void set(Json::Value& object, const std::string& name, const std::string& text);

/// The text that set() has set; nothing if neither member is there or it is of another type.
std::optional<std::string> get(const Json::Value& object, const std::string& name);

/// {"values":{KEY:VALUE,...},"base64":{KEY:BASE64,...}}; without the second where all are UTF-8.
Json::Value ofValues(const StatusMap& values);

/// Reads what ofValues() has made. Other members are left alone.
/// @throws Failure, with the reason, if it is not of that shape
StatusMap readValues(const Json::Value& root);

/// @throws Failure if the text is no object
Json::Value readRoot(const std::string& text);

/// An object; nothing if the text is not one, or has something behind it.
std::optional<Json::Value> readObject(const std::string& text);

} // namespace JsonText

#endif
