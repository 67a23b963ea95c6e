#include "mqttlink/Topics.h"

#include <charconv>
#include <mosquitto.h>

namespace
{

constexpr unsigned char firstBeyondAscii = 0x80;

bool isToBeEncoded(unsigned char letter, bool isFirst)
{
    constexpr unsigned char del = 0x7f;
    return letter < ' ' || letter == del || letter == '/' || letter == '+' || letter == '#' ||
           letter == '%' || (letter == '$' && isFirst);
}

bool isUtf8ForTopics(std::string_view text)
{
    return mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

std::string encodeWith(std::string_view name, bool isAsciiOnly)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string level;
    for (std::size_t i = 0; i < name.size(); ++i)
    {
        const auto letter = static_cast<unsigned char>(name[i]);
        if (isToBeEncoded(letter, i == 0) || (isAsciiOnly && letter >= firstBeyondAscii))
            (level += '%').append({digits[letter / 16U], digits[letter % 16U]});
        else
            level += name[i];
    }
    return level;
}

} // namespace

// Some letters beyond ASCII are legal in names, but not in topics: a server closes the connection.
std::string Topics::encode(std::string_view name)
{
    std::string level = encodeWith(name, false);
    return isUtf8ForTopics(level) ? level : encodeWith(name, true);
}

std::optional<std::string> Topics::decode(std::string_view level)
{
    std::string name;
    for (std::size_t i = 0; i < level.size(); ++i)
    {
        if (level[i] != '%')
        {
            name += level[i];
            continue;
        }
        unsigned letter = 0;
        const char* const first = level.data() + i + 1;
        constexpr int hexadecimal = 16;
        if (level.size() - i < 3 || std::from_chars(first, first + 2, letter, hexadecimal).ptr != first + 2)
            return std::nullopt;
        name += static_cast<char>(letter);
        i += 2;
    }
    return encode(name) == level ? std::optional(name) : std::nullopt;
}

std::optional<std::string> Topics::desiredKeyOf(const std::string& topic) const
{
    const std::string root = desired("");
    return topic.compare(0, root.size(), root) == 0 ? decode(std::string_view(topic).substr(root.size()))
                                                    : std::nullopt;
}

std::optional<std::string> Topics::commandOf(const std::string& topic) const
{
    const std::string root = command("");
    const std::size_t slash = topic.find('/', root.size());
    const bool isCommand = topic.compare(0, root.size(), root) == 0 && slash != std::string::npos &&
                           topic.find('/', slash + 1) == std::string::npos;
    return isCommand ? decode(std::string_view(topic).substr(root.size(), slash - root.size()))
                     : std::nullopt;
}

std::string Topics::errorInPrefix(const std::string& prefix)
{
    if (prefix.empty() || prefix.front() == '/' || prefix.back() == '/')
        return "begins or ends with a slash, or is empty";
    if (prefix.front() == '$')
        return "begins with $, which belongs to the server";
    if (mosquitto_pub_topic_check2(prefix.data(), prefix.size()) != MOSQ_ERR_SUCCESS ||
        !isUtf8ForTopics(prefix))
        return "is not a topic";
    return {};
}
