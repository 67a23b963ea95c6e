#ifndef STATUSCTL_TEXT_NUMBER_H
#define STATUSCTL_TEXT_NUMBER_H

#include <optional>
#include <string>

/// Numbers as texts, independent of the locale: "5", "-0.25", "1e6".
namespace Number
{

/// Returns a number below, equal to or above 0 if the first is less than, equal to or greater than the
/// second. Nothing if a text is not a number. Whole numbers of up to 64 bits are compared exactly.
std::optional<int> compare(const std::string& one, const std::string& other);

bool isNumber(const std::string& text);

} // namespace Number

#endif
