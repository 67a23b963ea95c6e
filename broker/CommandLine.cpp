#include "broker/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace
{

constexpr std::size_t longestFile = std::size_t{64} * 1024;
constexpr int wrongUsage = 2;

// ------------------------------------------------------------------------------------------------- options

void addSize(CLI::App& app, const char* name, std::size_t& value, std::size_t least, std::size_t most,
             const char* text)
{
    app.add_option(name, value, text)
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(CLI::Range(least, most))
        ->capture_default_str();
}

void addCount(CLI::App& app, const char* name, std::size_t& value, std::size_t most, const char* text)
{
    app.add_option(name, value, text)->check(CLI::Range(std::size_t{1}, most))->capture_default_str();
}

void addLimits(CLI::App& app, Limits& limits)
{
    constexpr std::size_t million = 1000000;
    constexpr std::size_t mebi = std::size_t{1024} * 1024;
    addCount(app, "--max-keys", limits.keys, million, "Most status keys");
    addSize(app, "--max-key-bytes", limits.keyBytes, 1, mebi,
            "Longest name of a key, event, timer or counter");
    addSize(app, "--max-value-bytes", limits.valueBytes, 1, 64 * mebi, "Longest value, e.g. 64K");
    addSize(app, "--max-stored-bytes", limits.storedBytes, 1024, 1024 * mebi,
            "Most bytes of all keys and values together, e.g. 16M");
    addSize(app, "--max-message-bytes", limits.messageBytes, 1024, 64 * mebi,
            "Longest message over all its frames");
    addCount(app, "--max-timers", limits.timers, million, "Most timers");
    addCount(app, "--max-counters", limits.counters, million, "Most counters");
    addSize(app, "--max-notify-bytes", limits.notifyBytes, 64 * 1024, 1024 * mebi,
            "Most memory for notifications that one subscriber has not taken; beyond it the subscriber is "
            "cut off");
    addCount(app, "--max-connections", limits.connections, million, "Most connections per port");
}

// All that may stand in the file, too.
void addOptions(CLI::App& app, Options& options)
{
    static const std::map<std::string, StateSync> syncs{
        {"off", StateSync::Off}, {"normal", StateSync::Normal}, {"full", StateSync::Full}};
    constexpr int hour = 3600;

    app.add_flag("--allow-set-time", options.allowSetTime,
                 "Let clients set the system clock (takes CAP_SYS_TIME)");
    app.add_option("--log-level", options.logLevel, "0 errors, 2 warnings, 5 information, 7 everything")
        ->check(CLI::Range(0, 7))
        ->capture_default_str();
    app.add_option_function<int>(
           "--heartbeat", [&options](int seconds) { options.heartbeat = std::chrono::seconds(seconds); },
           "Seconds between two heartbeats on the notify port, 0 for none; a client that ends waits for the "
           "next one")
        ->check(CLI::Range(0, hour))
        ->default_str(std::to_string(options.heartbeat.count()));
    app.add_option("--state", options.stateFile,
                   "Keep values, timers and counters in this file over a restart")
        ->type_name("FILE");
    app.add_option_function<std::string>(
           "--state-sync", [&options](const std::string& name) { options.stateSync = syncs.at(name); },
           "When the file reaches the storage: off, normal (outlives a crash of the broker) or full "
           "(outlives a "
           "power cut)")
        ->check(CLI::IsMember({"off", "normal", "full"}).description(""))
        ->type_name("off|normal|full")
        ->default_str("normal");
    app.add_option("--state-keys", options.stateKeys,
                   "Keep only names that match; may be given several times")
        ->type_name("GLOB")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    addLimits(app, options.limits);
}

void check(const Limits& limits)
{
    if (limits.keyBytes > limits.messageBytes || limits.valueBytes > limits.messageBytes)
        throw CLI::ValidationError("max-key-bytes and max-value-bytes must not be above max-message-bytes");
}

// ---------------------------------------------------------------------------------------------------- file

std::string readFile(const std::string& fileName)
{
    std::ifstream file(fileName, std::ios::binary);
    std::string text(longestFile + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad() || (file.fail() && !file.eof()))
        throw ConfigError(fileName + ": cannot be read");
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > longestFile)
        throw ConfigError(fileName + ": longer than " + std::to_string(longestFile) + " bytes");
    return text;
}

std::string trimmed(const std::string& text)
{
    constexpr const char* blanks = " \t\r";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string::npos ? std::string()
                                      : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Reads lines one by one, so that an error can be told with its line.
class ConfigReader
{
public:
    void add(const std::string& line)
    {
        if (line.find('\0') != std::string::npos)
            throw std::runtime_error("a byte that is no text");
        const std::string text = trimmed(line);
        if (text.empty() || text[0] == '#')
            return;
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos)
            throw std::runtime_error("not of the form \"name = value\"");
        add(trimmed(text.substr(0, equals)), trimmed(text.substr(equals + 1)));
    }

    Options options() const
    {
        Options options;
        parse(mArguments, options);
        check(options.limits);
        return options;
    }

private:
    void add(const std::string& name, const std::string& value)
    {
        if (value.empty())
            throw std::runtime_error("no value for \"" + name + "\"");
        if (name != "state-keys" && !mNames.insert(name).second)
            throw std::runtime_error("\"" + name + "\" is given twice");
        Options scratch;
        CLI::App app;
        app.set_help_flag(); // none
        addOptions(app, scratch);
        if (name.empty() || app.get_option_no_throw("--" + name) == nullptr)
            throw std::runtime_error("unknown name \"" + name + "\"");
        const std::string argument = "--" + name + "=" + value;
        parse({argument}, scratch);
        mArguments.push_back(argument);
    }

    static void parse(std::vector<std::string> arguments, Options& options)
    {
        CLI::App app;
        app.set_help_flag(); // none
        addOptions(app, options);
        std::reverse(arguments.begin(), arguments.end()); // as CLI11 wants them
        app.parse(arguments);
    }

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
                   "device and "
                   "passes changes on to all clients. Serves 127.0.0.1, ports 5555 to 5557.",
                   "statusbroker")
    {
        add_option(
            "--config", configFile,
            "Read options from this file, as \"name = value\"; the command line wins over it. Read again at "
            "SIGHUP, for the limits and the log level")
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
        std::vector<std::string> arguments(mArguments.rbegin(), mArguments.rend());
        app.parse(arguments);
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
    try
    {
        BrokerApp app(options);
        std::vector<std::string> arguments(mArguments.rbegin(), mArguments.rend());
        app.parse(arguments);
        check(options.limits);
    }
    catch (const CLI::ParseError& error)
    {
        throw ConfigError(error.what());
    }
    return options;
}
