#include "broker/ConfigFile.h"

#include <algorithm>
#include <map>
#include <vector>

#include "broker/OptionTable.h"
#include "daemon/OptionText.h"

using OptionText::quoted;

namespace
{

const OptionEntry& entryOf(const std::string& name)
{
    const std::vector<OptionEntry>& table = optionTable();
    const auto entry =
        std::find_if(table.begin(), table.end(), [&](const OptionEntry& each) { return each.name == name; });
    if (entry == table.end())
        throw std::runtime_error("unknown name " + quoted(name));
    return *entry;
}

using Values = std::map<const OptionEntry*, std::vector<std::string>>;

void add(Values& all, const std::string& name, const std::string& value)
{
    const OptionEntry& entry = entryOf(name);
    if (value.empty())
        throw std::runtime_error("no value for " + quoted(name));
    std::vector<std::string>& values = all[&entry];
    if (!values.empty() && entry.kind != OptionEntry::Kind::Repeatable)
        throw std::runtime_error(quoted(name) + " is given twice");
    if (const std::string error = entry.check(value); !error.empty())
        throw std::runtime_error(name + ": " + error);
    values.push_back(value);
}

} // namespace

Options parseConfig(const std::string& text, const std::string& fileName)
{
    Values all;
    ConfigText::read(text, fileName,
                     [&all](const std::string& name, const std::string& value) { add(all, name, value); });
    Options options;
    for (const auto& [entry, values] : all)
        entry->set(options, values);
    return options;
}

Options readConfigFile(const std::string& fileName)
{
    return parseConfig(ConfigText::readFile(fileName), fileName);
}
