#ifndef STATUSCTL_TEXT_TEXT_H
#define STATUSCTL_TEXT_TEXT_H

#include <string>

/// How texts from outside are shown. They may hold anything.
namespace Text
{

bool isUtf8(const std::string& text);

/// With U+FFFD for each byte that is not UTF-8.
std::string valid(const std::string& text);

/// On one line, harmless on a terminal, and with nothing hidden: \n, \r, \t, \\, and \xNN for each byte of
/// other control characters, of characters that show nothing or change the direction of writing, and for
/// bytes that are not UTF-8.
std::string escaped(const std::string& text);

/// As escaped(), and without = and blanks, which would end a name: \x3d and \x20.
std::string escapedName(const std::string& name);

/// As escaped(), but line breaks, tabs and backslashes stay.
std::string harmless(const std::string& text);

/// A JSON text that means the same, with \uNNNN for what escaped() would not show. Line breaks and other
/// control characters of ASCII stay: JSON has them between its texts alone.
std::string escapedInJson(const std::string& json);

/// The first 40 characters, then "..." if there are more: as much as a table or a message has room for.
std::string cutOff(const std::string& text);

std::string base64(const std::string& bytes);

/// @returns false if it is not base64.
bool readBase64(const std::string& text, std::string& bytes);

} // namespace Text

#endif
