#include "broker/ConfigFile.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <system_error>
#include <vector>

#include "broker/OptionTable.h"
#include "broker/base/OptionText.h"

using OptionText::quoted;

namespace
{

constexpr std::size_t longestFile = std::size_t{64} * 1024;
constexpr std::size_t longestLine = std::size_t{4} * 1024;

// -------------------------------------------------------------------------------------------------- lines

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

// ----------------------------------------------------------------------------------------------- settings

const OptionEntry& entryOf(const std::string& name)
{
    const std::vector<OptionEntry>& table = optionTable();
    const auto entry =
        std::find_if(table.begin(), table.end(), [&](const OptionEntry& each) { return each.name == name; });
    if (entry == table.end())
        throw std::runtime_error("unknown name " + quoted(name));
    return *entry;
}

// Takes lines one by one, so that an error can be reported with its line.
class ConfigReader
{
public:
    void add(const std::string& line)
    {
        const std::string content = contentOf(line);
        if (content.empty())
            return;
        const std::size_t equals = content.find('=');
        if (equals == std::string::npos)
            throw std::runtime_error("not of the form \"name = value\"");
        add(trimmed(content.substr(0, equals)), trimmed(content.substr(equals + 1)));
    }

    Options options() const
    {
        Options options;
        for (const auto& [entry, values] : mValues)
            entry->set(options, values);
        return options;
    }

private:
    void add(const std::string& name, const std::string& value)
    {
        const OptionEntry& entry = entryOf(name);
        if (value.empty())
            throw std::runtime_error("no value for " + quoted(name));
        std::vector<std::string>& values = mValues[&entry];
        if (!values.empty() && entry.kind != OptionEntry::Kind::Repeatable)
            throw std::runtime_error(quoted(name) + " is given twice");
        if (const std::string error = entry.check(value); !error.empty())
            throw std::runtime_error(name + ": " + error);
        values.push_back(value);
    }

    std::map<const OptionEntry*, std::vector<std::string>> mValues;
};

// --------------------------------------------------------------------------------------------------- file

std::string readFile(const std::string& fileName)
{
    std::error_code error;
    const bool isRegular = std::filesystem::is_regular_file(fileName, error);
    if (error)
        throw ConfigError(fileName + ": cannot be read: " + error.message());
    if (!isRegular) // a pipe, for example, could block a serving broker
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

} // namespace

Options parseConfig(const std::string& text, const std::string& fileName)
{
    ConfigReader reader;
    std::istringstream lines(text);
    int number = 0;
    try
    {
        for (std::string line; std::getline(lines, line);)
        {
            ++number;
            reader.add(line);
        }
    }
    catch (const std::runtime_error& error)
    {
        throw ConfigError(fileName + ":" + std::to_string(number) + ": " + error.what());
    }
    return reader.options();
}

Options readConfigFile(const std::string& fileName)
{
    return parseConfig(readFile(fileName), fileName);
}
