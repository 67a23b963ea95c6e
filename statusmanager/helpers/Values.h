#ifndef STATUSMANAGER_HELPERS_VALUES_H
#define STATUSMANAGER_HELPERS_VALUES_H

#include <charconv>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

#include "common/Export.h"
#include "statusmanager/StatusManager.h"
#include "statusmanager/helpers/Instance.h"

namespace status
{

/// The types that toText(), fromText(), get() and post() accept: bool and all numbers. Character types are
/// excluded, because they could mean a text or a number.
template <class T>
constexpr bool isNumber =
    std::is_arithmetic_v<T> && !std::is_same_v<T, char> && !std::is_same_v<T, wchar_t> &&
    !std::is_same_v<T, char16_t> && !std::is_same_v<T, char32_t>;

/// Returns a number as text for a status value, independent of the locale: decimal, with enough digits for
/// fromText() to return the same number. A bool becomes "true" or "false". Any thread.
template <class T>
[[nodiscard]] std::string toText(T number)
{
    static_assert(isNumber<T>, "bool and numbers only");
    if constexpr (std::is_same_v<T, bool>)
        return number ? "true" : "false";
    else
    {
        char text[64]; // enough for the longest number of every type
        return std::string(text, std::to_chars(text, text + sizeof(text), number).ptr);
    }
}

/// Reads a number, independent of the locale. Any thread.
/// @param text for a bool: "true", "1", "false" or "0". For other types: a decimal number; only floating
///             point types accept a fraction and an exponent.
/// @returns nothing if the text is anything else, has other characters before or after the number (even a
///          space), or does not fit the type
template <class T>
[[nodiscard]] std::optional<T> fromText(const std::string& text)
{
    static_assert(isNumber<T>, "bool and numbers only");
    if constexpr (std::is_same_v<T, bool>)
    {
        const bool isTrue = text == "true" || text == "1";
        return isTrue || text == "false" || text == "0" ? std::optional<bool>(isTrue) : std::nullopt;
    }
    else
    {
        T number{};
        const char* const end = text.data() + text.size();
        const auto [last, error] = std::from_chars(text.data(), end, number);
        return error == std::errc() && last == end ? std::optional<T>(number) : std::nullopt;
    }
}

/// Returns the value of `key`. Waits for the broker's answer without a time limit, like a query of
/// StatusManager. Any thread.
/// @returns "" if the key was reset; nothing if the key is unknown or the query failed
[[nodiscard]] OV_EXPORT std::optional<std::string> find(const std::string& key,
                                                        StatusManager& manager = status::manager());
/// A null pointer is not a key.
template <class... Rest>
std::optional<std::string> find(std::nullptr_t key, Rest&&... rest) = delete;

/// Returns the value of `key` as a number: `get<int>("fan.rpm").value_or(0)`. Waits like find(). Any thread.
/// @returns nothing if there is no value, or fromText() cannot read it
template <class T>
[[nodiscard]] std::optional<T> get(const std::string& key, StatusManager& manager = status::manager())
{
    const std::optional<std::string> value = find(key, manager);
    return value ? fromText<T>(*value) : std::nullopt;
}

/// Posts a value, as StatusManager::postStatus() does, unless the message would lose its end on the way.
/// Messages lose their end if their length is a multiple of 512 bytes.
///
/// Any thread; returns at once. An empty value is a reset.
/// @returns false, with a log line of level 2, if nothing was posted for that reason. Then make the value one
///          byte longer or shorter.
OV_EXPORT bool post(std::string key, std::string value, StatusManager& manager = status::manager());
/// The same. A null pointer is not posted: logs a line of level 2 and returns false.
OV_EXPORT bool post(std::string key, const char* value, StatusManager& manager = status::manager());
/// A null pointer is not a value. A reset is `post(key, "")`.
template <class... Rest>
bool post(std::string key, std::nullptr_t value, Rest&&... rest) = delete;

/// Posts a number as toText() writes it: `post("fan.rpm", 0)` posts "0". Everything else is as for a text.
template <class T, class = std::enable_if_t<isNumber<T>>>
bool post(std::string key, T number, StatusManager& manager = status::manager())
{
    return post(std::move(key), toText(number), manager);
}

/// Posts several values in one message, so that listeners get them together. Posts all values or none. If it
/// returns false, post them in two parts. Everything else is as for one value.
[[nodiscard]] OV_EXPORT bool post(StatusMap values, StatusManager& manager = status::manager());

/// Posts an event, as StatusManager::postEvent() does, unless the message would lose its end; see post().
///
/// Any thread; returns at once.
/// @param delay the event leaves this process after this time. Negative delays count as 0, delays of more
///              than 49 days as 49 days. If the process ends earlier, the event is never sent. Managers
///              without a broker ignore the delay.
/// @returns false, with a log line of level 2, if nothing was posted
OV_EXPORT bool postEvent(std::string name, std::string value = {},
                         std::chrono::milliseconds delay = std::chrono::milliseconds(0),
                         StatusManager& manager = status::manager());
/// A null pointer is not a value. Leave the value out, or pass "".
template <class... Rest>
bool postEvent(std::string name, std::nullptr_t value, Rest&&... rest) = delete;

} // namespace status

#endif
