#include "statusctl/text/Number.h"

#include <charconv>
#include <cmath>
#include <cstdint>

namespace
{

// The whole text must be the number.
template <typename Value>
std::optional<Value> read(const std::string& text)
{
    Value value{};
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, value);
    return error == std::errc() && end == last ? std::optional(value) : std::nullopt;
}

std::optional<double> readFinite(const std::string& text)
{
    const std::optional<double> value = read<double>(text);
    return value && std::isfinite(*value) ? value : std::nullopt;
}

template <typename Value>
std::optional<int> compareAs(const std::optional<Value>& one, const std::optional<Value>& other)
{
    if (!one || !other)
        return std::nullopt;
    return *one < *other ? -1 : (*other < *one ? 1 : 0);
}

} // namespace

std::optional<int> Number::compare(const std::string& one, const std::string& other)
{
    if (const auto order = compareAs(read<int64_t>(one), read<int64_t>(other)))
        return order;
    if (const auto order = compareAs(read<uint64_t>(one), read<uint64_t>(other)))
        return order;
    return compareAs(readFinite(one), readFinite(other));
}

bool Number::isNumber(const std::string& text)
{
    return readFinite(text).has_value();
}
