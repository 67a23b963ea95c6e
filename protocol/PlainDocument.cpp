#include "protocol/PlainDocument.h"

#include <algorithm>

#include "protocol/PlainScanner.h"

namespace PlainDocument
{

namespace
{

using PlainText::isPlain;

bool arePlain(const Members& members)
{
    return std::all_of(members.begin(), members.end(),
                       [](const auto& member) { return isPlain(member.first) && isPlain(member.second); });
}

constexpr std::size_t punctuation = 8; // no document needs more around its texts

std::size_t sizeOf(const Members& members)
{
    std::size_t size = punctuation;
    for (const auto& [name, value] : members)
        size += name.size() + value.size() + punctuation;
    return size;
}

void append(std::string& document, std::string_view text)
{
    document += '"';
    document += text;
    document += '"';
}

void append(std::string& document, const Members& members)
{
    document += '{';
    for (const auto& [name, value] : members)
    {
        if (document.back() != '{')
            document += ',';
        append(document, name);
        document += ':';
        append(document, value);
    }
    document += '}';
}

template <typename Payload>
std::string wrapped(std::string_view key, const Payload& payload, std::size_t size)
{
    std::string document;
    document.reserve(size + key.size() + punctuation);
    document += '{';
    append(document, key);
    document += ':';
    append(document, payload);
    document += '}';
    return document;
}

bool takeMembers(PlainScanner& scanner, Members& members)
{
    return scanner.takeMembers(
        [&](std::string_view name, std::string_view value)
        {
            if (!members.empty() && members.rbegin()->first >= name)
                return false;
            members.emplace_hint(members.end(), name, value);
            return true;
        });
}

} // namespace

std::optional<std::string> write(std::string_view key, const std::string& text)
{
    if (!isPlain(text))
        return std::nullopt;
    return wrapped(key, std::string_view(text), text.size() + punctuation);
}

std::optional<std::string> write(std::string_view key, const Members& members)
{
    if (!arePlain(members))
        return std::nullopt;
    return wrapped(key, members, sizeOf(members));
}

std::optional<std::string> write(const Members& members)
{
    if (!arePlain(members))
        return std::nullopt;
    std::string document;
    document.reserve(sizeOf(members));
    append(document, members);
    return document;
}

std::optional<Content> read(const std::string& document)
{
    PlainScanner scanner(document);
    Content content;
    if (!scanner.take('{') || !scanner.takeText(content.key) || !scanner.take(':'))
        return std::nullopt;
    std::string_view text;
    if (scanner.takeText(text))
        content.text.emplace(text);
    else if (!takeMembers(scanner, content.members))
        return std::nullopt;
    if (!scanner.take('}') || !scanner.atEnd())
        return std::nullopt;
    return content;
}

std::optional<Members> readMembers(const std::string& document)
{
    PlainScanner scanner(document);
    Members members;
    if (!takeMembers(scanner, members) || !scanner.atEnd())
        return std::nullopt;
    return members;
}

} // namespace PlainDocument
