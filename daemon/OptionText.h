#ifndef DAEMON_OPTIONTEXT_H
#define DAEMON_OPTIONTEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Reads and writes the values of options.
namespace OptionText
{

constexpr uint64_t kibi = 1024;
constexpr uint64_t mebi = kibi * kibi;

/// In quotes, shortened, and harmless on a terminal for any text.
std::string quoted(const std::string& text);

/// Decimal digits only. Returns nothing for any other text, or a number that is too large.
std::optional<uint64_t> readNumber(std::string_view text);

/// A number that may end with K (1024) or M (1024 K).
std::optional<uint64_t> readSize(std::string_view text);

std::string showNumber(uint64_t number);

/// As short as possible, in the form that readSize() reads.
std::string showSize(uint64_t size);

/// Returns the error in the name of a file, or in a glob; empty if there is none. Refuses an option in its
/// place: in "--state --check-config" the name is missing. On the command line, "--state=--check-config"
/// looks the same.
std::string checkText(const std::string& value);

} // namespace OptionText

#endif
