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

/// The types that toText(), fromText(), get() and post() take: bool and all numbers, but no characters, for
/// which a text or a number may be meant.
template <class T>
constexpr bool isNumber =
    std::is_arithmetic_v<T> && !std::is_same_v<T, char> && !std::is_same_v<T, wchar_t> &&
    !std::is_same_v<T, char16_t> && !std::is_same_v<T, char32_t>;

/// A number as status values hold it, whatever the locale: decimal, and with as many digits as fromText()
/// needs to give the same number back; "true" or "false" for a bool. Any thread.
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

/// The number that `text` is, whatever the locale. Any thread.
/// @param text for a bool: "true", "1", "false" or "0"; for all others decimal, a fraction and an exponent
///             only for floating point
/// @returns nothing if the text is something else, has anything in front or behind (also a space), or does
///          not fit the type
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

/// The value of `key`. As a query of StatusManager, it waits for the broker's answer, without a time limit.
/// Any thread.
/// @returns "" if the key was reset; nothing if it is unknown, or if the query failed
[[nodiscard]] OV_EXPORT std::optional<std::string> find(const std::string& key,
                                                        StatusManager& manager = status::manager());
/// No key.
template <class... Rest>
std::optional<std::string> find(std::nullptr_t key, Rest&&... rest) = delete;

/// The value of `key` as a number: `get<int>("fan.rpm").value_or(0)`. Waits as find() does. Any thread.
/// @returns nothing if there is no value, or if it is not such a number; see fromText()
template <class T>
[[nodiscard]] std::optional<T> get(const std::string& key, StatusManager& manager = status::manager())
{
    const std::optional<std::string> value = find(key, manager);
    return value ? fromText<T>(*value) : std::nullopt;
}

/// Posts a value, as StatusManager::postStatus() does, unless its message would lose its end on the way: that
/// happens to messages of exactly 512 bytes and multiples of that.
///
/// Any thread; returns at once. The empty value is a reset.
/// @returns false, with a log line of level 2, if nothing was posted for that reason. Make the value one byte
///          longer or shorter.
OV_EXPORT bool post(std::string key, std::string value, StatusManager& manager = status::manager());
/// The same. A null pointer is refused with a log line of level 2, and false.
OV_EXPORT bool post(std::string key, const char* value, StatusManager& manager = status::manager());
/// No value: a reset is `post(key, "")`.
template <class... Rest>
bool post(std::string key, std::nullptr_t value, Rest&&... rest) = delete;

/// Posts a number as toText() writes it: `post("fan.rpm", 0)` posts "0". All else as for a text.
template <class T, class = std::enable_if_t<isNumber<T>>>
bool post(std::string key, T number, StatusManager& manager = status::manager())
{
    return post(std::move(key), toText(number), manager);
}

/// Posts several values in one message, so that listeners see them together. As for one value; all of them
/// are posted or none. If it returns false, post them in two parts.
[[nodiscard]] OV_EXPORT bool post(StatusMap values, StatusManager& manager = status::manager());

/// Posts an event, as StatusManager::postEvent() does, unless its message would lose its end; see post().
///
/// Any thread; returns at once.
/// @param delay the event leaves this process after that time, of which less than 0 counts as 0, and more
///              than 49 days as 49 days. If the process ends before, it is never sent. Managers without a
///              broker ignore it.
/// @returns false, with a log line of level 2, if nothing was posted
OV_EXPORT bool postEvent(std::string name, std::string value = {},
                         std::chrono::milliseconds delay = std::chrono::milliseconds(0),
                         StatusManager& manager = status::manager());
/// No value: leave it out, or give "".
template <class... Rest>
bool postEvent(std::string name, std::nullptr_t value, Rest&&... rest) = delete;

} // namespace status

#endif
