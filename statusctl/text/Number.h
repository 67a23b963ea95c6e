#ifndef STATUSCTL_TEXT_NUMBER_H
#define STATUSCTL_TEXT_NUMBER_H

#include <optional>
#include <string>

/// Numbers as texts, in any locale written the same: "5", "-0.25", "1e6".
namespace Number
{

/// Below 0, 0 or above 0 as the first is less than, equal to or greater than the other; nothing if one of the
/// texts is not a number. Whole numbers of up to 64 bits are compared exactly.
std::optional<int> compare(const std::string& one, const std::string& other);

bool isNumber(const std::string& text);

} // namespace Number

#endif
