#include "bridge/BridgeOptions.h"

#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <stdexcept>

#include "bridge/ServerName.h"
#include "bridge/Topics.h"
#include "daemon/ConfigText.h"
#include "daemon/OptionText.h"

using OptionText::quoted;

namespace
{

using Set = std::function<void(BridgeOptions&, const std::string&)>;

struct Setting
{
    Set set;
    bool isRepeatable = false;
};

[[noreturn]] void refuse(const std::string& reason)
{
    throw std::runtime_error(reason);
}

uint64_t numberIn(const std::string& value, uint64_t least, uint64_t most)
{
    const auto number = OptionText::readNumber(value);
    if (!number || *number < least || *number > most)
        refuse(quoted(value) + " is not a number in " + std::to_string(least) + ".." + std::to_string(most));
    return *number;
}

std::size_t sizeIn(const std::string& value, uint64_t least, uint64_t most)
{
    const auto size = OptionText::readSize(value);
    if (!size || *size < least || *size > most)
        refuse(quoted(value) + " is not a size in " + OptionText::showSize(least) + ".." +
               OptionText::showSize(most));
    return static_cast<std::size_t>(*size);
}

bool truth(const std::string& value)
{
    if (value != "true" && value != "false")
        refuse(quoted(value) + " is not one of true, false");
    return value == "true";
}

// ------------------------------------------------------------------------------------------------- kinds

Setting text(std::string BridgeOptions::*member)
{
    return {[member](BridgeOptions& options, const std::string& value)
            {
                if (const std::string error = OptionText::checkText(value); !error.empty())
                    refuse(error);
                options.*member = value;
            }};
}

void addGlob(std::vector<Glob>& list, const std::string& value)
{
    if (const std::string error = Glob::errorIn(value); !error.empty())
        refuse(quoted(value) + ": " + error);
    list.emplace_back(value);
}

Setting globs(NameRules BridgeOptions::*rules, std::vector<Glob> NameRules::*list)
{
    return {[rules, list](BridgeOptions& options, const std::string& value)
            { addGlob(options.*rules.*list, value); },
            true};
}

Setting globs(std::vector<Glob> BridgeOptions::*list)
{
    return {[list](BridgeOptions& options, const std::string& value) { addGlob(options.*list, value); },
            true};
}

template <typename Number>
Setting number(Number BridgeOptions::*member, uint64_t least, uint64_t most)
{
    return {[=](BridgeOptions& options, const std::string& value)
            { options.*member = static_cast<Number>(numberIn(value, least, most)); }};
}

Setting seconds(std::chrono::seconds BridgeOptions::*member, uint64_t least, uint64_t most)
{
    return {[=](BridgeOptions& options, const std::string& value)
            { options.*member = std::chrono::seconds(numberIn(value, least, most)); }};
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
    const std::chrono::seconds interval(numberIn(value.substr(blank + 1), 1, day));
    options.intervals.push_back({Glob(glob), interval});
}

void setServer(BridgeOptions& options, const std::string& value)
{
    if (const std::string error = ServerName::errorIn(value); !error.empty())
        refuse(error);
    options.server = value;
}

void setPrefix(BridgeOptions& options, const std::string& value)
{
    if (const std::string error = Topics::errorInPrefix(value); !error.empty())
        refuse(quoted(value) + " " + error);
    options.prefix = value;
}

void setMqtt(BridgeOptions& options, const std::string& value)
{
    if (value != "5" && value != "3.1.1")
        refuse(quoted(value) + " is not one of 5, 3.1.1");
    options.isVersion5 = value == "5";
}

void setLayout(BridgeOptions& options, const std::string& value)
{
    if (value != "keys" && value != "document")
        refuse(quoted(value) + " is not one of keys, document");
    options.layout = value == "keys" ? BridgeOptions::Layout::Keys : BridgeOptions::Layout::Document;
}

const std::map<std::string, Setting>& settings()
{
    constexpr uint64_t hour = 3600;
    constexpr uint64_t day = 24 * hour;
    constexpr uint64_t million = 1000000;
    using O = BridgeOptions;
    static const std::map<std::string, Setting> all{
        {"server", {setServer}},
        {"port", number(&O::port, 1, std::numeric_limits<uint16_t>::max())},
        {"device", text(&O::device)},
        {"prefix", {setPrefix}},
        {"client-id", text(&O::clientId)},
        {"mqtt", {setMqtt}},
        {"keep-alive", seconds(&O::keepAlive, 5, std::numeric_limits<uint16_t>::max())},
        {"longest-pause", seconds(&O::longestPause, 1, hour)},
        {"insecure", {[](O& options, const std::string& value) { options.isInsecure = truth(value); }}},
        {"ca", text(&O::ca)},
        {"certificate", text(&O::certificate)},
        {"key", text(&O::key)},
        {"alpn", text(&O::alpn)},
        {"user", text(&O::user)},
        {"password-file", text(&O::passwordFile)},
        {"layout", {setLayout}},
        {"keys", globs(&O::keys, &NameRules::include)},
        {"exclude-keys", globs(&O::keys, &NameRules::exclude)},
        {"events", globs(&O::events, &NameRules::include)},
        {"exclude-events", globs(&O::events, &NameRules::exclude)},
        {"interval", {setInterval, true}},
        {"desired-keys", globs(&O::desiredKeys)},
        {"commands", globs(&O::commands)},
        {"batch", {[](O& options, const std::string& value) {
             options.batch = std::chrono::seconds(numberIn(value, 0, hour));
         }}},
        {"rebirth-pause", seconds(&O::rebirthPause, 1, day)},
        {"online-expiry", seconds(&O::onlineExpiry, 0, 365 * day)},
        {"file", text(&O::file)},
        {"max-events", number(&O::mostEvents, 1, million)},
        {"max-event-bytes", {[](O& options, const std::string& value) {
             options.mostEventBytes = sizeIn(value, OptionText::kibi, 1024 * OptionText::mebi);
         }}},
        {"event-rate", number(&O::eventRate, 1, 10000)},
        {"log-level", number(&O::logLevel, 0, 7)},
    };
    return all;
}

// ------------------------------------------------------------------------------------------------- whole

// The mistake that no single line has; empty if there is none.
std::string mistakeIn(const BridgeOptions& options)
{
    if (options.server.empty())
        return "no server is named";
    if (options.device.empty())
        return "no device is named";
    if (options.certificate.empty() != options.key.empty())
        return "certificate and key are needed together";
    if (options.isInsecure && !options.certificate.empty())
        return "a certificate is of no use with insecure = true";
    if (options.user.empty() && !options.passwordFile.empty())
        return "a password-file is of no use without a user";
    if (!options.isVersion5 && !options.commands.empty())
        return "commands need mqtt = 5, which lets them expire";
    return {};
}

// A name without a folder is a credential that the service manager provides.
void findCredential(std::string& file)
{
    const char* folder = getenv("CREDENTIALS_DIRECTORY");
    if (!file.empty() && file.find('/') == std::string::npos && folder != nullptr)
        file = std::string(folder) + "/" + file;
}

std::string fileOfTheService()
{
    const char* file = getenv("STATUSBRIDGE_FILE");
    return file == nullptr ? "" : file;
}

} // namespace

int BridgeOptions::effectivePort() const
{
    constexpr int plain = 1883;
    constexpr int secure = 8883;
    return port != 0 ? port : isInsecure ? plain : secure;
}

BridgeOptions BridgeOptions::parse(const std::string& text, const std::string& fileName)
{
    BridgeOptions options;
    std::set<std::string> given;
    ConfigText::read(text, fileName,
                     [&](const std::string& name, const std::string& value)
                     {
                         const auto setting = settings().find(name);
                         if (setting == settings().end())
                             refuse("unknown name " + quoted(name));
                         if (value.empty())
                             refuse("no value for " + quoted(name));
                         if (!given.insert(name).second && !setting->second.isRepeatable)
                             refuse(quoted(name) + " is given twice");
                         try
                         {
                             setting->second.set(options, value);
                         }
                         catch (const std::runtime_error& error)
                         {
                             refuse(name + ": " + error.what());
                         }
                     });
    if (const std::string mistake = mistakeIn(options); !mistake.empty())
        throw ConfigError(fileName + ": " + mistake);
    for (std::string* file : {&options.ca, &options.certificate, &options.key, &options.passwordFile})
        findCredential(*file);
    if (options.file.empty())
        options.file = fileOfTheService();
    return options;
}

BridgeOptions BridgeOptions::readFile(const std::string& fileName)
{
    return parse(ConfigText::readFile(fileName), fileName);
}

std::string readPassword(const std::string& fileName)
{
    std::string password = ConfigText::readFile(fileName);
    while (!password.empty() && (password.back() == '\n' || password.back() == '\r'))
        password.pop_back();
    return password;
}
