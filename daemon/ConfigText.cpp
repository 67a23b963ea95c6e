#include "daemon/ConfigText.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace
{

constexpr std::size_t longestFile = std::size_t{64} * 1024;
constexpr std::size_t longestLine = std::size_t{4} * 1024;

bool isControl(char letter)
{
    const auto byte = static_cast<unsigned char>(letter);
    return (byte < ' ' && byte != '\t') || byte == 0x7f;
}

// A # starts a comment only at the beginning or after a blank; elsewhere it may be part of a value.
std::string withoutComment(const std::string& line)
{
    std::size_t at = line.find('#');
    while (at != std::string::npos && at != 0 && line[at - 1] != ' ' && line[at - 1] != '\t')
        at = line.find('#', at + 1);
    return line.substr(0, at);
}

std::string trimmed(const std::string& text)
{
    constexpr const char* blanks = " \t";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string::npos ? std::string()
                                      : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Removes the comment and surrounding blanks. Windows ends lines with a carriage return.
std::string contentOf(std::string line)
{
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    if (line.size() > longestLine)
        throw std::runtime_error("longer than " + std::to_string(longestLine) + " bytes");
    if (std::any_of(line.begin(), line.end(), isControl))
        throw std::runtime_error("a control character");
    return trimmed(withoutComment(line));
}

void takeLine(const std::string& line, const ConfigText::Take& take)
{
    const std::string content = contentOf(line);
    if (content.empty())
        return;
    const std::size_t equals = content.find('=');
    if (equals == std::string::npos)
        throw std::runtime_error("not of the form \"name = value\"");
    take(trimmed(content.substr(0, equals)), trimmed(content.substr(equals + 1)));
}

} // namespace

void ConfigText::read(const std::string& text, const std::string& fileName, const Take& take)
{
    std::istringstream lines(text);
    int number = 0;
    try
    {
        for (std::string line; std::getline(lines, line);)
        {
            ++number;
            takeLine(line, take);
        }
    }
    catch (const std::runtime_error& error)
    {
        throw ConfigError(fileName + ":" + std::to_string(number) + ": " + error.what());
    }
}

std::string ConfigText::readFile(const std::string& fileName)
{
    std::error_code error;
    const bool isRegular = std::filesystem::is_regular_file(fileName, error);
    if (error)
        throw ConfigError(fileName + ": cannot be read: " + error.message());
    if (!isRegular) // a pipe, for example, could block a serving daemon
        throw ConfigError(fileName + ": cannot be read: not a regular file");
    std::ifstream file(fileName, std::ios::binary);
    std::string text(longestFile + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad())
        throw ConfigError(fileName + ": cannot be read");
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > longestFile)
        throw ConfigError(fileName + ": longer than " + std::to_string(longestFile) + " bytes");
    return text;
}
