#include "broker/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

namespace
{

constexpr std::size_t kibi = 1024;
constexpr std::size_t mebi = kibi * kibi;
constexpr std::size_t longestFile = 64 * kibi;
constexpr std::size_t longestLine = 4 * kibi;

// ------------------------------------------------------------------------------------------------- values

// In quotes, short and harmless on a terminal, whatever a file holds.
std::string shown(const std::string& text)
{
    constexpr std::size_t longest = 40;
    std::string result = text.substr(0, longest);
    for (char& letter : result)
    {
        if (letter < ' ' || letter > '~')
            letter = '?';
    }
    return '"' + result + (text.size() > longest ? "...\"" : "\"");
}

// Takes digits only, where CLI11 takes "010" for eight and "-18446744073709551615" for one.
std::optional<uint64_t> readNumber(std::string_view text)
{
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

uint64_t unitOf(char suffix)
{
    return suffix == 'K' ? kibi : suffix == 'M' ? mebi : 1;
}

std::optional<uint64_t> readSize(std::string_view text)
{
    const uint64_t unit = text.empty() ? 1 : unitOf(text.back());
    const auto number = readNumber(text.substr(0, text.size() - (unit == 1 ? 0 : 1)));
    if (!number || *number > std::numeric_limits<uint64_t>::max() / unit)
        return std::nullopt;
    return *number * unit;
}

std::string sizeText(std::size_t size)
{
    for (const char suffix : {'M', 'K'})
    {
        if (size % unitOf(suffix) == 0)
            return std::to_string(size / unitOf(suffix)) + suffix;
    }
    return std::to_string(size);
}

CLI::Validator number(std::size_t least, std::size_t most)
{
    const std::string range = std::to_string(least) + ".." + std::to_string(most);
    const auto convert = [=](std::string& text)
    {
        const auto value = readNumber(text);
        if (!value || *value < least || *value > most)
            return shown(text) + " is not a number in " + range;
        text = std::to_string(*value);
        return std::string();
    };
    return CLI::Validator(convert, range);
}

CLI::Validator size(std::size_t least, std::size_t most)
{
    const std::string range = sizeText(least) + ".." + sizeText(most);
    const auto convert = [=](std::string& text)
    {
        const auto value = readSize(text);
        if (!value || *value < least || *value > most)
            return shown(text) + " is not a size in " + range;
        text = std::to_string(*value);
        return std::string();
    };
    return CLI::Validator(convert, range);
}

CLI::Validator oneOf(const std::vector<std::string>& choices)
{
    const auto check = [choices](std::string& text)
    {
        if (std::find(choices.begin(), choices.end(), text) != choices.end())
            return std::string();
        return shown(text) + " is none of " + CLI::detail::join(choices, ", ");
    };
    return CLI::Validator(check, "");
}

// "--state --check-config" was not meant to keep the state in a file of that name. Nor is the first of them
// with a "=" behind it, which is the same to CLI11.
CLI::Validator notAnOption()
{
    const auto check = [](std::string& text)
    {
        const bool isGood = !text.empty() && text.compare(0, 2, "--") != 0;
        return isGood ? std::string() : shown(text) + " is empty or an option";
    };
    return CLI::Validator(check, "");
}

// ------------------------------------------------------------------------------------------------- options

void addCount(CLI::App& app, const char* name, std::size_t& value, std::size_t most, const char* text)
{
    app.add_option(name, value, text)
        ->type_name("COUNT")
        ->transform(number(1, most))
        ->default_str(std::to_string(value));
}

void addSize(CLI::App& app, const char* name, std::size_t& value, std::size_t least, std::size_t most,
             const char* text)
{
    app.add_option(name, value, text)
        ->type_name("BYTES")
        ->transform(size(least, most))
        ->default_str(sizeText(value));
}

void addLimits(CLI::App& app, Limits& limits)
{
    constexpr std::size_t million = 1000000;
    addCount(app, "--max-keys", limits.keys, million, "Most status keys");
    addSize(app, "--max-key-bytes", limits.keyBytes, 1, mebi,
            "Longest name of a key, event, timer or counter");
    addSize(app, "--max-value-bytes", limits.valueBytes, 1, 64 * mebi, "Longest value");
    addSize(app, "--max-stored-bytes", limits.storedBytes, kibi, 1024 * mebi,
            "Most bytes of all keys and values together");
    addSize(app, "--max-message-bytes", limits.messageBytes, kibi, 64 * mebi,
            "Longest message over all its frames");
    addCount(app, "--max-timers", limits.timers, million, "Most timers");
    addCount(app, "--max-counters", limits.counters, million, "Most counters");
    addSize(app, "--max-notify-bytes", limits.notifyBytes, 64 * kibi, 1024 * mebi,
            "Most memory for notifications that one subscriber has not taken; beyond it the subscriber is "
            "cut off");
    addCount(app, "--max-connections", limits.connections, million, "Most connections per port");
}

void addStateOptions(CLI::App& app, Options& options)
{
    static const std::map<std::string, StateSync> syncs{
        {"off", StateSync::Off}, {"normal", StateSync::Normal}, {"full", StateSync::Full}};

    app.add_option("--state", options.stateFile,
                   "Keep values, timers and counters in this file over a restart; without it nothing is kept")
        ->check(notAnOption())
        ->type_name("FILE");
    app.add_option_function<std::string>(
           "--state-sync", [&options](const std::string& name) { options.stateSync = syncs.at(name); },
           "What a power cut may do to the file: off (break it), normal (take the last changes) or full "
           "(nothing); a crash of the broker loses nothing with any of them")
        ->check(oneOf({"off", "normal", "full"}))
        ->type_name("off|normal|full")
        ->default_str("normal");
    // Not bound to the vector: CLI11 would read lists like "[a,b]" in what is a glob.
    const auto takeKeys = [&options](const CLI::results_t& globs)
    {
        options.stateKeys = globs;
        return true;
    };
    app.add_option("--state-keys", takeKeys,
                   "Keep only names that match; may be given several times; without it all are kept")
        ->check(notAnOption())
        ->type_name("GLOB")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

// All that may stand in the file, too.
void addOptions(CLI::App& app, Options& options)
{
    constexpr std::size_t hour = 3600;

    app.add_flag("--allow-set-time", options.allowSetTime,
                 "Let clients set the system clock (takes CAP_SYS_TIME); by default they may not")
        ->check(oneOf({"true", "false"}));
    app.add_option("--log-level", options.logLevel, "0 errors, 2 warnings, 5 information, 7 everything")
        ->type_name("LEVEL")
        ->transform(number(0, 7))
        ->default_str(std::to_string(options.logLevel));
    app.add_option_function<int>(
           "--heartbeat", [&options](int seconds) { options.heartbeat = std::chrono::seconds(seconds); },
           "Time between two heartbeats on the notify port, 0 for none; a client that ends waits for the "
           "next one")
        ->type_name("SECONDS")
        ->transform(number(0, hour))
        ->default_str(std::to_string(options.heartbeat.count()));
    addStateOptions(app, options);
    addLimits(app, options.limits);
}

void parse(CLI::App& app, const std::vector<std::string>& arguments)
{
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend())); // as CLI11 wants them
}

// ------------------------------------------------------------------------------------------ contradictions

void checkFits(const char* name, std::size_t value, const Limits& limits)
{
    if (value > limits.messageBytes)
        throw CLI::ValidationError(std::string(name) + " (" + std::to_string(value) +
                                   ") must not be above max-message-bytes (" +
                                   std::to_string(limits.messageBytes) + ")");
}

void check(const Limits& limits)
{
    checkFits("max-key-bytes", limits.keyBytes, limits);
    checkFits("max-value-bytes", limits.valueBytes, limits);
}

// ---------------------------------------------------------------------------------------------------- file

std::string readFile(const std::string& fileName)
{
    std::error_code error;
    const bool isRegular = std::filesystem::is_regular_file(fileName, error);
    if (error)
        throw ConfigError(fileName + ": cannot be read: " + error.message());
    if (!isRegular) // a pipe, say, could keep a serving broker waiting
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

bool isControl(char letter)
{
    const auto byte = static_cast<unsigned char>(letter);
    return (byte < ' ' && byte != '\t') || byte == 0x7f;
}

// A # ends a line where it cannot be part of a value: at the beginning and after a blank.
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

// Reads lines one by one, so that an error can be told with its line.
class ConfigReader
{
public:
    ConfigReader()
    {
        mApp.set_help_flag(); // none
        addOptions(mApp, mOptions);
    }

    void add(std::string line)
    {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.size() > longestLine)
            throw std::runtime_error("longer than " + std::to_string(longestLine) + " bytes");
        if (std::any_of(line.begin(), line.end(), isControl))
            throw std::runtime_error("a byte that is no text");
        const std::string text = trimmed(withoutComment(line));
        if (text.empty())
            return;
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos)
            throw std::runtime_error("not of the form \"name = value\"");
        add(trimmed(text.substr(0, equals)), trimmed(text.substr(equals + 1)));
    }

    Options options()
    {
        parse(mApp, mArguments);
        return mOptions;
    }

private:
    void add(const std::string& name, const std::string& value)
    {
        const CLI::Option* option = mApp.get_option_no_throw("--" + name);
        if (option == nullptr)
            throw std::runtime_error("unknown name " + shown(name));
        if (value.empty())
            throw std::runtime_error("no value for " + shown(name));
        const bool isRepeatable = option->get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll;
        if (!mNames.insert(name).second && !isRepeatable)
            throw std::runtime_error(shown(name) + " is given twice");
        mArguments.push_back("--" + name + "=" + value);
        parseAlone(mArguments.back());
    }

    void parseAlone(const std::string& argument)
    {
        try
        {
            parse(mApp, {argument});
        }
        catch (const CLI::ParseError& error)
        {
            const std::string text = error.what();
            throw std::runtime_error(text.substr(text.find_first_not_of('-'))); // no dashes in a file
        }
    }

    Options mOptions;
    CLI::App mApp;
    std::vector<std::string> mArguments;
    std::set<std::string> mNames;
};

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
        return reader.options();
    }
    catch (const std::runtime_error& error) // CLI11's errors are, too
    {
        throw ConfigError(fileName + ":" + std::to_string(number) + ": " + error.what());
    }
}

// -------------------------------------------------------------------------------------------- command line

namespace
{

class BrokerApp : public CLI::App
{
public:
    explicit BrokerApp(Options& options)
        : CLI::App("The broker of the status manager: holds the status values, timers and counters of this "
                   "device and passes changes on to all clients. Serves 127.0.0.1, ports 5555 to 5557.",
                   "statusbroker")
    {
        add_option(
            "--config", configFile,
            "Read options from this file, as \"name = value\"; the command line wins over it. Read again at "
            "SIGHUP, for the limits and the log level")
            ->check(notAnOption())
            ->type_name("FILE");
        add_flag("--check-config", isCheck, "Only say whether command line and file are good");
        addOptions(*this, options);
        set_version_flag("--version", "statusbroker " STATUSBROKER_VERSION);
    }

    std::string configFile;
    bool isCheck = false;
};

} // namespace

CommandLine::CommandLine(int argc, char** argv) : mArguments(argv + std::min(argc, 1), argv + argc)
{
    Options scratch;
    BrokerApp app(scratch);
    try
    {
        parse(app, mArguments);
        if (app.configFile.empty()) // which may have the limit that goes with these
            check(scratch.limits);
    }
    catch (const CLI::ParseError& error)
    {
        throw Exit{app.exit(error) == 0 ? 0 : wrongUsage};
    }
    mConfigFile = app.configFile;
    mIsCheck = app.isCheck;
}

Options CommandLine::readOptions() const
{
    Options options;
    if (!mConfigFile.empty())
        options = parseConfig(readFile(mConfigFile), mConfigFile);
    BrokerApp app(options);
    parse(app, mArguments);
    try
    {
        check(options.limits);
    }
    catch (const CLI::ParseError& error)
    {
        throw ConfigError(mConfigFile + ": " + error.what());
    }
    return options;
}
