#ifndef PROTOCOL_ESCAPEDTEXT_H
#define PROTOCOL_ESCAPEDTEXT_H

#include <string>
#include <string_view>

/// Writes texts that are not plain.
namespace EscapedText
{

/// Appends the text as a JSON string of ASCII characters, with quotes. A byte that is not UTF-8 becomes
/// U+FFFD.
void append(std::string& to, std::string_view text);

} // namespace EscapedText

#endif
