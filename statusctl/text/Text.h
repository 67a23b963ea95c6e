#ifndef STATUSCTL_TEXT_TEXT_H
#define STATUSCTL_TEXT_TEXT_H

#include <cstddef>
#include <string>

/// Makes texts from outside fit to be shown. They may contain anything.
namespace Text
{

/// Replaces each byte that is not UTF-8 by U+FFFD.
std::string valid(const std::string& text);

/// One line, harmless on a terminal, with nothing hidden. Writes \n, \r, \t and \\. Writes \xNN for each byte
/// of other control characters, of invisible characters, of characters that change the writing direction, and
/// for bytes that are not UTF-8.
std::string escaped(const std::string& text);

/// Like escaped(), and also escapes = and blanks, which would end a name, as \x3d and \x20.
std::string escapedName(const std::string& name);

/// Like escaped(), but keeps line breaks, tabs and backslashes.
std::string harmless(const std::string& text);

/// An equivalent JSON text, with \uNNNN for characters that escaped() would escape. Keeps ASCII control
/// characters: JSON allows them only between its tokens.
std::string escapedInJson(const std::string& json);

/// The first 40 characters, and "..." if there are more, to fit in a table or a message.
std::string cutOff(const std::string& text);

/// "1 key", "2 keys"
std::string counted(std::size_t number, const std::string& what);

std::string base64(const std::string& bytes);

/// @returns false if the text is not base64
bool readBase64(const std::string& text, std::string& bytes);

} // namespace Text

#endif
