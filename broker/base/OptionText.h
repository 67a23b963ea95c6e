#ifndef BROKER_BASE_OPTIONTEXT_H
#define BROKER_BASE_OPTIONTEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// How the values of options are written.
namespace OptionText
{

constexpr uint64_t kibi = 1024;
constexpr uint64_t mebi = kibi * kibi;

/// In quotes, short and harmless on a terminal, whatever it holds.
std::string quoted(const std::string& text);

/// Decimal digits only. Nothing if it is anything else, or too large.
std::optional<uint64_t> readNumber(std::string_view text);

/// A number that may end with K (1024) or M (1024 K).
std::optional<uint64_t> readSize(std::string_view text);

std::string showNumber(uint64_t number);

/// As readSize() reads it, and as short as possible.
std::string showSize(uint64_t size);

/// Returns what is wrong with the name of a file, or a glob; empty if nothing is. An option in its place was
/// not meant: "--state --check-config" lacks the name of a file. On the command line "--state=--check-config"
/// looks the same.
std::string checkText(const std::string& value);

} // namespace OptionText

#endif
