#ifndef PROTOCOL_PLAINDOCUMENT_H
#define PROTOCOL_PLAINDOCUMENT_H

#include <map>
#include <optional>
#include <string>
#include <string_view>

/// JSON documents of the simplest kind, which is what nearly all messages are: every text is printable ASCII
/// without quotes and backslashes, and nothing but texts is in them. Written and read here, they take a tenth
/// of the time that JsonCpp takes for them, with exactly its results. Everything answers "nothing" for any
/// other document; that is JsonCpp's then.
namespace PlainDocument
{

using Members = std::map<std::string, std::string>;

/// {"<key>":"<text>"}
std::optional<std::string> write(std::string_view key, const std::string& text);

/// {"<key>":{"<name>":"<value>",...}}
std::optional<std::string> write(std::string_view key, const Members& members);

/// {"<name>":"<value>",...}
std::optional<std::string> write(const Members& members);

struct Content
{
    std::string_view key; ///< in the text that was read
    std::optional<std::string> text;
    Members members; ///< where there is no text
};

/// Either of the first two forms. Names must be in ascending order and there only once, as they are written.
std::optional<Content> read(const std::string& document);

/// The third form.
std::optional<Members> readMembers(const std::string& document);

} // namespace PlainDocument

#endif
