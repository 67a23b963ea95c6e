#include "broker/OptionTable.h"

#include <algorithm>
#include <map>

#include "daemon/OptionText.h"

using namespace OptionText;

namespace
{

using Values = std::vector<std::string>;
using Kind = OptionEntry::Kind;

constexpr uint64_t million = 1000000;
constexpr uint64_t hour = 3600;

// ------------------------------------------------------------------------------------------------ numbers

struct Notation
{
    const char* unit;
    const char* noun;
    std::optional<uint64_t> (*read)(std::string_view);
    std::string (*show)(uint64_t);
};

constexpr Notation counts{"COUNT", "number", readNumber, showNumber};
constexpr Notation levels{"LEVEL", "number", readNumber, showNumber};
constexpr Notation seconds{"SECONDS", "number", readNumber, showNumber};
constexpr Notation sizes{"BYTES", "size", readSize, showSize};

struct Range
{
    uint64_t least;
    uint64_t most;
};

using Store = std::function<void(Options&, uint64_t)>;

OptionEntry numeric(const char* name, const Notation& notation, Range range, uint64_t initial, Store store,
                    const char* text)
{
    const std::string rangeText = notation.show(range.least) + ".." + notation.show(range.most);
    const auto check = [=](const std::string& value)
    {
        const auto number = notation.read(value);
        const bool isGood = number && *number >= range.least && *number <= range.most;
        return isGood ? std::string() : quoted(value) + " is not a " + notation.noun + " in " + rangeText;
    };
    const auto set = [=](Options& options, const Values& values)
    { store(options, *notation.read(values.back())); };
    return {name, Kind::Single, notation.unit, rangeText, notation.show(initial), text, check, set};
}

OptionEntry limit(const char* name, const Notation& notation, Range range, std::size_t Limits::*value,
                  const char* text)
{
    const auto store = [=](Options& options, uint64_t number)
    { options.limits.*value = static_cast<std::size_t>(number); };
    return numeric(name, notation, range, Limits().*value, store, text);
}

OptionEntry count(const char* name, std::size_t Limits::*value, const char* text)
{
    return limit(name, counts, {1, million}, value, text);
}

OptionEntry size(const char* name, Range range, std::size_t Limits::*value, const char* text)
{
    return limit(name, sizes, range, value, text);
}

// -------------------------------------------------------------------------------------------------- texts

OptionEntry::Check oneOf(const std::vector<std::string>& choices)
{
    return [choices](const std::string& value)
    {
        if (std::find(choices.begin(), choices.end(), value) != choices.end())
            return std::string();
        std::string list;
        for (const std::string& choice : choices)
            list += (list.empty() ? "" : ", ") + choice;
        return quoted(value) + " is not one of " + list;
    };
}

OptionEntry allowSetTime()
{
    const auto set = [](Options& options, const Values& values)
    { options.allowSetTime = values.back() == "true"; };
    return {"allow-set-time",
            Kind::Flag,
            "",
            "",
            "false",
            "Let clients set the system clock (needs CAP_SYS_TIME); by default they may not",
            oneOf({"true", "false"}),
            set};
}

OptionEntry stateSync()
{
    static const std::map<std::string, StateSync> syncs{
        {"off", StateSync::Off}, {"normal", StateSync::Normal}, {"full", StateSync::Full}};
    const auto set = [](Options& options, const Values& values)
    { options.stateSync = syncs.at(values.back()); };
    return {"state-sync",
            Kind::Single,
            "off|normal|full",
            "",
            "normal",
            "After a power cut: off = the file may be corrupt, normal = the last changes are lost, "
            "full = nothing is lost. After a crash of the broker nothing is lost with any of them",
            oneOf({"off", "normal", "full"}),
            set};
}

OptionEntry state()
{
    const auto set = [](Options& options, const Values& values) { options.stateFile = values.back(); };
    return {"state",
            Kind::Single,
            "FILE",
            "",
            "",
            "Keep values, timers and counters in this file across restarts. Without it nothing is kept, "
            "unless STATUSBROKER_STATE in the environment names a file",
            checkText,
            set};
}

OptionEntry stateKeys()
{
    const auto set = [](Options& options, const Values& values) { options.stateKeys = values; };
    return {"state-keys", Kind::Repeatable,
            "GLOB",       "",
            "",           "Keep only names that match. May be given several times; default: all",
            checkText,    set};
}

OptionEntry policy()
{
    const auto set = [](Options& options, const Values& values) { options.policy = values.back(); };
    return {"policy",
            Kind::Single,
            "PATH",
            "",
            "",
            "The policy that limits clients: this file, or the files *.policy in this folder. "
            "Without it they may do everything",
            checkText,
            set};
}

// -------------------------------------------------------------------------------------------------- table

std::vector<OptionEntry> makeTable()
{
    const Options initial;
    return {
        allowSetTime(),
        policy(),
        numeric(
            "log-level", levels, {0, 7}, static_cast<uint64_t>(initial.logLevel),
            [](Options& options, uint64_t number) { options.logLevel = static_cast<int>(number); },
            "0 errors, 2 warnings, 5 information, 7 everything"),
        numeric(
            "heartbeat", seconds, {0, hour}, static_cast<uint64_t>(initial.heartbeat.count()),
            [](Options& options, uint64_t number) { options.heartbeat = std::chrono::seconds(number); },
            "Time between two heartbeats on the notify port, 0 for none. "
            "A client that ends waits for the next heartbeat"),
        state(),
        stateSync(),
        stateKeys(),
        count("max-keys", &Limits::keys, "Largest number of status keys"),
        size("max-key-bytes", {1, mebi}, &Limits::keyBytes, "Longest name of a key, event, timer or counter"),
        size("max-value-bytes", {1, 64 * mebi}, &Limits::valueBytes, "Longest value"),
        size("max-stored-bytes", {kibi, 1024 * mebi}, &Limits::storedBytes,
             "Largest size of all keys and values together"),
        size("max-message-bytes", {kibi, 64 * mebi}, &Limits::messageBytes,
             "Longest message over all its frames"),
        count("max-timers", &Limits::timers, "Largest number of timers"),
        count("max-counters", &Limits::counters, "Largest number of counters"),
        size("max-notify-bytes", {64 * kibi, 1024 * mebi}, &Limits::notifyBytes,
             "Length of the log of notifications that all subscribers share; a subscriber that is further "
             "behind gets the latest values instead"),
        size("max-memory", {4 * mebi, 2048 * mebi}, &Limits::memory,
             "Memory limit for the unfinished messages, requests, replies and notifications of all "
             "connections together; beyond it the largest gives way: the log of notifications gets "
             "shorter, or a connection is closed and comes back"),
        count("max-connections", &Limits::connections, "Largest number of connections per port"),
    };
}

// Memory for each byte of the longest message. One byte is for the message, and three for its members while
// it is read: members of eleven bytes or more take that. Shorter members take more, but
// BrokerProtocol::mostMembers bounds their number.
constexpr std::size_t memoryPerByte = 4;

std::string shownWithName(const char* name, std::size_t value)
{
    return std::string(name) + " (" + std::to_string(value) + ")";
}

std::string checkFits(const char* name, std::size_t value, const Limits& limits)
{
    if (value <= limits.messageBytes)
        return "";
    return shownWithName(name, value) + " must not be above " +
           shownWithName("max-message-bytes", limits.messageBytes);
}

// A message of the greatest length must fit, however full the log of notifications is.
std::string checkMemory(const Limits& limits)
{
    const std::size_t needed = limits.notifyBytes + memoryPerByte * limits.messageBytes;
    if (limits.memory >= needed)
        return "";
    return shownWithName("max-memory", limits.memory) +
           " must not be below max-notify-bytes and four times max-message-bytes together (" +
           std::to_string(needed) + ")";
}

} // namespace

const std::vector<OptionEntry>& optionTable()
{
    static const std::vector<OptionEntry> table = makeTable();
    return table;
}

std::string contradictionIn(const Limits& limits)
{
    for (const std::string& error :
         {checkFits("max-key-bytes", limits.keyBytes, limits),
          checkFits("max-value-bytes", limits.valueBytes, limits), checkMemory(limits)})
    {
        if (!error.empty())
            return error;
    }
    return "";
}
