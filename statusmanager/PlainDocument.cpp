#include "statusmanager/PlainDocument.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace PlainDocument
{

namespace
{

// JsonCpp writes and reads these as they are.
constexpr bool isPlain(char character)
{
    return character >= ' ' && character <= '~' && character != '"' && character != '\\';
}

// Eight at a time: this is most of what a document costs.
std::size_t plainLength(std::string_view text)
{
    constexpr uint64_t ones = 0x0101010101010101U;
    constexpr uint64_t highs = ones * 0x80;
    std::size_t length = 0;
    for (; text.size() - length >= sizeof(uint64_t); length += sizeof(uint64_t))
    {
        uint64_t bytes = 0;
        std::memcpy(&bytes, text.data() + length, sizeof(bytes));
        const uint64_t quotes = bytes ^ (ones * '"');
        const uint64_t slashes = bytes ^ (ones * '\\');
        const uint64_t rubouts = bytes ^ (ones * 0x7F);
        // The high bit of a byte that is below a space, or 0 after the exclusive or; or that was there
        // before.
        const uint64_t odd =
            (bytes - ones * ' ') | (quotes - ones) | (slashes - ones) | (rubouts - ones) | bytes;
        if ((odd & highs) != 0)
            break;
    }
    while (length < text.size() && isPlain(text[length]))
        ++length;
    return length;
}

bool isPlain(std::string_view text)
{
    return plainLength(text) == text.size();
}

bool arePlain(const StatusMap& members)
{
    return std::all_of(members.begin(), members.end(),
                       [](const auto& member) { return isPlain(member.first) && isPlain(member.second); });
}

constexpr std::size_t punctuation = 8; // more than any text takes around it

std::size_t sizeOf(const StatusMap& members)
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

void append(std::string& document, const StatusMap& members)
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

class Scanner
{
public:
    explicit Scanner(std::string_view rest) : mRest(rest) {}

    bool take(char character)
    {
        if (mRest.empty() || mRest.front() != character)
            return false;
        mRest.remove_prefix(1);
        return true;
    }

    bool takeText(std::string_view& text)
    {
        if (!take('"'))
            return false;
        text = mRest.substr(0, plainLength(mRest));
        mRest.remove_prefix(text.size());
        return take('"');
    }

    bool takeMembers(StatusMap& members)
    {
        if (!take('{'))
            return false;
        if (take('}'))
            return true;
        do
        {
            if (!takeMember(members))
                return false;
        } while (take(','));
        return take('}');
    }

    bool atEnd() const { return mRest.empty(); }

private:
    bool takeMember(StatusMap& members)
    {
        std::string_view name;
        std::string_view value;
        if (!takeText(name) || !take(':') || !takeText(value))
            return false;
        if (!members.empty() && members.rbegin()->first >= name)
            return false;
        members.emplace_hint(members.end(), name, value);
        return true;
    }

    std::string_view mRest;
};

} // namespace

std::optional<std::string> write(std::string_view key, const std::string& text)
{
    if (!isPlain(text))
        return std::nullopt;
    return wrapped(key, std::string_view(text), text.size() + punctuation);
}

std::optional<std::string> write(std::string_view key, const StatusMap& members)
{
    if (!arePlain(members))
        return std::nullopt;
    return wrapped(key, members, sizeOf(members));
}

std::optional<std::string> write(const StatusMap& members)
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
    Scanner scanner(document);
    Content content;
    if (!scanner.take('{') || !scanner.takeText(content.key) || !scanner.take(':'))
        return std::nullopt;
    std::string_view text;
    if (scanner.takeText(text))
        content.text.emplace(text);
    else if (!scanner.takeMembers(content.members))
        return std::nullopt;
    if (!scanner.take('}') || !scanner.atEnd())
        return std::nullopt;
    return content;
}

std::optional<StatusMap> readMembers(const std::string& document)
{
    Scanner scanner(document);
    StatusMap members;
    if (!scanner.takeMembers(members) || !scanner.atEnd())
        return std::nullopt;
    return members;
}

} // namespace PlainDocument
