#include "bridge/BridgeOptions.h"

#include <cstdlib>
#include <sstream>

#include "daemon/ConfigText.h"
#include "daemon/OptionText.h"
#include "mqttlink/Topics.h"

using OptionText::quoted;
using SettingValue::refuse;

namespace
{

using BridgeSetting = Setting<BridgeOptions>;

// ------------------------------------------------------------------------------------------------- kinds

BridgeSetting text(std::string BridgeOptions::*member)
{
    return {[member](BridgeOptions& options, const std::string& value)
            { options.*member = SettingValue::text(value); }};
}

void addGlob(std::vector<Glob>& list, const std::string& value)
{
    if (const std::string error = Glob::errorIn(value); !error.empty())
        refuse(quoted(value) + ": " + error);
    list.emplace_back(value);
}

BridgeSetting globs(NameRules BridgeOptions::*rules, std::vector<Glob> NameRules::*list)
{
    return {[rules, list](BridgeOptions& options, const std::string& value)
            { addGlob(options.*rules.*list, value); },
            true};
}

BridgeSetting globs(std::vector<Glob> BridgeOptions::*list)
{
    return {[list](BridgeOptions& options, const std::string& value) { addGlob(options.*list, value); },
            true};
}

template <typename Number>
BridgeSetting number(Number BridgeOptions::*member, uint64_t least, uint64_t most)
{
    return {[=](BridgeOptions& options, const std::string& value)
            { options.*member = static_cast<Number>(SettingValue::number(value, least, most)); }};
}

BridgeSetting seconds(std::chrono::seconds BridgeOptions::*member, uint64_t least, uint64_t most)
{
    return {[=](BridgeOptions& options, const std::string& value)
            { options.*member = std::chrono::seconds(SettingValue::number(value, least, most)); }};
}

// "GLOB SECONDS"
void setInterval(BridgeOptions& options, const std::string& value)
{
    constexpr uint64_t day = 86400;
    const std::size_t blank = value.find_last_of(" \t");
    if (blank == std::string::npos)
        refuse(quoted(value) + " is not of the form \"GLOB SECONDS\"");
    const std::string glob = value.substr(0, value.find_last_not_of(" \t", blank) + 1);
    if (const std::string error = Glob::errorIn(glob); !error.empty())
        refuse(quoted(glob) + ": " + error);
    const std::chrono::seconds interval(SettingValue::number(value.substr(blank + 1), 1, day));
    options.intervals.push_back({Glob(glob), interval});
}

// "KEY", "KEY UNIT" or "KEY UNIT CLASS"; the unit - is none
void addDiscovery(BridgeOptions& options, const std::string& value)
{
    std::istringstream words(value);
    DiscoveryRule rule;
    std::string tooMuch;
    words >> rule.key >> rule.unit >> rule.deviceClass >> tooMuch;
    if (!tooMuch.empty())
        refuse(quoted(value) + " is not of the form \"KEY UNIT CLASS\"");
    if (rule.unit == "-")
        rule.unit.clear();
    options.discovery.push_back(rule);
}

void setDiscoveryPrefix(BridgeOptions& options, const std::string& value)
{
    if (const std::string error = Topics::errorInPrefix(value); !error.empty())
        refuse(quoted(value) + " " + error);
    options.discoveryPrefix = value;
}

void setLayout(BridgeOptions& options, const std::string& value)
{
    if (value != "keys" && value != "document")
        refuse(quoted(value) + " is not one of keys, document");
    options.layout = value == "keys" ? BridgeOptions::Layout::Keys : BridgeOptions::Layout::Document;
}

SettingTable<BridgeOptions> makeSettings()
{
    constexpr uint64_t hour = 3600;
    constexpr uint64_t day = 24 * hour;
    constexpr uint64_t million = 1000000;
    using O = BridgeOptions;
    SettingTable<BridgeOptions> all{
        {"device", text(&O::device)},
        {"longest-pause", seconds(&O::longestPause, 1, hour)},
        {"layout", {setLayout}},
        {"keys", globs(&O::keys, &NameRules::include)},
        {"exclude-keys", globs(&O::keys, &NameRules::exclude)},
        {"events", globs(&O::events, &NameRules::include)},
        {"exclude-events", globs(&O::events, &NameRules::exclude)},
        {"interval", {setInterval, true}},
        {"discovery", {addDiscovery, true}},
        {"discovery-prefix", {setDiscoveryPrefix}},
        {"desired-keys", globs(&O::desiredKeys)},
        {"commands", globs(&O::commands)},
        {"batch", {[](O& options, const std::string& value) {
             options.batch = std::chrono::seconds(SettingValue::number(value, 0, hour));
         }}},
        {"rebirth-pause", seconds(&O::rebirthPause, 1, day)},
        {"online-expiry", seconds(&O::onlineExpiry, 0, 365 * day)},
        {"file", text(&O::file)},
        {"max-events", number(&O::mostEvents, 1, million)},
        {"max-event-bytes", {[](O& options, const std::string& value) {
             options.mostEventBytes = SettingValue::size(value, OptionText::kibi, 1024 * OptionText::mebi);
         }}},
        {"event-rate", number(&O::eventRate, 1, 10000)},
        {"log-level", number(&O::logLevel, 0, 7)},
    };
    all.merge(serverSettingsOf<BridgeOptions>());
    return all;
}

// ------------------------------------------------------------------------------------------------- whole

// The mistake that no single line has; empty if there is none.
std::string mistakeIn(const BridgeOptions& options)
{
    if (const std::string mistake = options.mistake(); !mistake.empty())
        return mistake;
    if (options.device.empty())
        return "no device is named";
    if (options.layout == BridgeOptions::Layout::Document && !options.discovery.empty())
        return "discovery needs layout = keys";
    if (!options.isVersion5 && !options.commands.empty())
        return "commands need mqtt = 5, which lets them expire";
    return {};
}

std::string fileOfTheService()
{
    const char* file = getenv("STATUSBRIDGE_FILE");
    return file == nullptr ? "" : file;
}

} // namespace

BridgeOptions BridgeOptions::parse(const std::string& text, const std::string& fileName)
{
    BridgeOptions options;
    static const SettingTable<BridgeOptions> settings = makeSettings();
    readSettings(settings, text, fileName, options);
    if (const std::string mistake = mistakeIn(options); !mistake.empty())
        throw ConfigError(fileName + ": " + mistake);
    options.findCredentials();
    if (options.file.empty())
        options.file = fileOfTheService();
    return options;
}

BridgeOptions BridgeOptions::readFile(const std::string& fileName)
{
    return parse(ConfigText::readFile(fileName), fileName);
}
