#include "mqttlink/ServerName.h"

#include "daemon/OptionText.h"

namespace
{

constexpr uint64_t mostServers = 1000000;

// The numbers in the braces.
struct Row
{
    std::size_t begin;
    std::size_t end; // behind the brace
    uint64_t first;
    uint64_t last;
};

std::optional<Row> rowIn(const std::string& name)
{
    const std::size_t begin = name.find('{');
    const std::size_t end = name.find('}', begin == std::string::npos ? 0 : begin);
    if (begin == std::string::npos || end == std::string::npos)
        return std::nullopt;
    const std::string range = name.substr(begin + 1, end - begin - 1);
    const std::size_t dots = range.find("..");
    if (dots == std::string::npos)
        return std::nullopt;
    const auto first = OptionText::readNumber(range.substr(0, dots));
    const auto last = OptionText::readNumber(range.substr(dots + 2));
    if (!first || !last || *first > *last || *last >= mostServers)
        return std::nullopt;
    return Row{begin, end + 1, *first, *last};
}

std::string nameOf(const std::string& name, const Row& row, uint64_t number)
{
    return name.substr(0, row.begin) + std::to_string(number) + name.substr(row.end);
}

// FNV-1a. It must never change: devices would go to other servers.
uint64_t hashOf(const std::string& text)
{
    uint64_t hash = 14695981039346656037U;
    for (const char letter : text)
        hash = (hash ^ static_cast<unsigned char>(letter)) * 1099511628211U;
    return hash;
}

} // namespace

std::string ServerName::errorIn(const std::string& name)
{
    const bool hasBraces = name.find_first_of("{}") != std::string::npos;
    const std::optional<Row> row = rowIn(name);
    if (hasBraces && (!row || name.substr(row->end).find_first_of("{}") != std::string::npos))
        return OptionText::quoted(name) + " is not of the form \"mqtt{0..127}.example.org\"";
    if (name.empty() || name.find_first_of(" \t/") != std::string::npos)
        return OptionText::quoted(name) + " is not the name of a server";
    return {};
}

std::string ServerName::pick(const std::string& name, const std::string& device)
{
    const std::optional<Row> row = rowIn(name);
    return row ? nameOf(name, *row, row->first + hashOf(device) % (row->last - row->first + 1)) : name;
}

std::vector<std::string> ServerName::all(const std::string& name)
{
    const std::optional<Row> row = rowIn(name);
    if (!row)
        return {name};
    std::vector<std::string> names;
    for (uint64_t number = row->first; number <= row->last; ++number)
        names.push_back(nameOf(name, *row, number));
    return names;
}
