#ifndef STATUSCTL_TEXT_TEXT_H
#define STATUSCTL_TEXT_TEXT_H

#include <string>

/// How texts from outside are shown. They may hold anything.
namespace Text
{

bool isUtf8(const std::string& text);

/// With U+FFFD for each byte that is no UTF-8.
std::string valid(const std::string& text);

/// On one line and harmless on a terminal: \n, \r, \t, \\, and \xNN for every other control character and for
/// bytes that are no UTF-8. No two texts look the same.
std::string escaped(const std::string& text);

/// As escaped(), and without = and blanks, which would end a name: \x3d and \x20.
std::string escapedName(const std::string& name);

/// Harmless on a terminal, and otherwise as it is: line breaks, tabs and backslashes stay.
std::string harmless(const std::string& text);

std::string base64(const std::string& bytes);

/// @returns false if it is no base64.
bool readBase64(const std::string& text, std::string& bytes);

} // namespace Text

#endif
