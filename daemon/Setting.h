#ifndef DAEMON_SETTING_H
#define DAEMON_SETTING_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <string>

#include "daemon/ConfigText.h"
#include "daemon/OptionText.h"

/// A name of a configuration file, and what its value sets.
template <typename Options>
struct Setting
{
    std::function<void(Options&, const std::string&)> set; ///< throws std::runtime_error with the mistake
    bool isRepeatable = false;
};

template <typename Options>
using SettingTable = std::map<std::string, Setting<Options>>;

/// Reads values. Each function throws std::runtime_error with the mistake.
namespace SettingValue
{

[[noreturn]] inline void refuse(const std::string& reason)
{
    throw std::runtime_error(reason);
}

inline std::string text(const std::string& value)
{
    if (const std::string error = OptionText::checkText(value); !error.empty())
        refuse(error);
    return value;
}

inline uint64_t number(const std::string& value, uint64_t least, uint64_t most)
{
    const auto number = OptionText::readNumber(value);
    if (!number || *number < least || *number > most)
        refuse(OptionText::quoted(value) + " is not a number in " + std::to_string(least) + ".." +
               std::to_string(most));
    return *number;
}

inline std::size_t size(const std::string& value, uint64_t least, uint64_t most)
{
    const auto size = OptionText::readSize(value);
    if (!size || *size < least || *size > most)
        refuse(OptionText::quoted(value) + " is not a size in " + OptionText::showSize(least) + ".." +
               OptionText::showSize(most));
    return static_cast<std::size_t>(*size);
}

inline bool truth(const std::string& value)
{
    if (value != "true" && value != "false")
        refuse(OptionText::quoted(value) + " is not one of true, false");
    return value == "true";
}

} // namespace SettingValue

/// Reads a configuration in the format of ConfigText into `options`. Throws ConfigError.
template <typename Options>
void readSettings(const SettingTable<Options>& settings, const std::string& text, const std::string& fileName,
                  Options& options)
{
    std::set<std::string> given;
    ConfigText::read(text, fileName,
                     [&](const std::string& name, const std::string& value)
                     {
                         const auto setting = settings.find(name);
                         if (setting == settings.end())
                             SettingValue::refuse("unknown name " + OptionText::quoted(name));
                         if (value.empty())
                             SettingValue::refuse("no value for " + OptionText::quoted(name));
                         if (!given.insert(name).second && !setting->second.isRepeatable)
                             SettingValue::refuse(OptionText::quoted(name) + " is given twice");
                         try
                         {
                             setting->second.set(options, value);
                         }
                         catch (const std::runtime_error& error)
                         {
                             SettingValue::refuse(name + ": " + error.what());
                         }
                     });
}

#endif
