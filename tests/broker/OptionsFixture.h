#ifndef TESTS_BROKER_OPTIONSFIXTURE_H
#define TESTS_BROKER_OPTIONSFIXTURE_H

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "broker/CommandLine.h"
#include "tests/support/TestProcess.h"

/// Helpers for tests of the command line and of the configuration file.

using Lines = std::vector<std::string>;
using Values = std::map<std::string, std::string>;

inline std::string nameOf(StateSync sync)
{
    return sync == StateSync::Off ? "off" : sync == StateSync::Normal ? "normal" : "full";
}

inline std::string joined(const Lines& texts)
{
    std::string result;
    for (const std::string& text : texts)
        result += "<" + text + ">";
    return result;
}

/// Options by name, to compare two sets and to show differences.
inline Values valuesOf(const Options& options)
{
    const auto text = [](std::size_t number) { return std::to_string(number); };
    const Limits& limits = options.limits;
    return {{"allow-set-time", options.allowSetTime ? "true" : "false"},
            {"policy", options.policy},
            {"log-level", std::to_string(options.logLevel)},
            {"heartbeat", std::to_string(options.heartbeat.count())},
            {"state", options.stateFile},
            {"state-sync", nameOf(options.stateSync)},
            {"state-keys", joined(options.stateKeys)},
            {"max-keys", text(limits.keys)},
            {"max-key-bytes", text(limits.keyBytes)},
            {"max-value-bytes", text(limits.valueBytes)},
            {"max-stored-bytes", text(limits.storedBytes)},
            {"max-message-bytes", text(limits.messageBytes)},
            {"max-timers", text(limits.timers)},
            {"max-counters", text(limits.counters)},
            {"max-notify-bytes", text(limits.notifyBytes)},
            {"max-memory", text(limits.memory)},
            {"max-connections", text(limits.connections)}};
}

inline const Values defaults = valuesOf(Options());

inline Values defaultsBut(const std::string& name, const std::string& value)
{
    Values values = defaults;
    values[name] = value;
    return values;
}

inline CommandLine commandLine(const Lines& arguments)
{
    std::vector<char*> pointers{const_cast<char*>("statusbroker")};
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    return {static_cast<int>(pointers.size()), pointers.data()};
}

inline Values read(const Lines& arguments)
{
    return valuesOf(commandLine(arguments).readOptions());
}

inline Values readFile(const std::string& text)
{
    return valuesOf(parseConfig(text, "file"));
}

/// The error message for this text of a file; empty if there is none.
inline std::string errorIn(const std::string& text)
{
    try
    {
        parseConfig(text, "file");
        return "";
    }
    catch (const ConfigError& error)
    {
        return error.what();
    }
}

inline std::string errorOf(const CommandLine& line)
{
    try
    {
        line.readOptions();
        return "";
    }
    catch (const ConfigError& error)
    {
        return error.what();
    }
}

inline std::string contentsOf(const std::string& fileName)
{
    std::ifstream file(fileName);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline Lines linesOf(const std::string& text)
{
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

inline bool startsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

struct Outcome
{
    std::optional<int> code;
    std::string output;
    std::string errors;
};

inline Outcome run(Lines arguments)
{
    arguments.insert(arguments.begin(), STATUSBROKER_PRODUCT);
    TestProcess process(arguments);
    Outcome outcome;
    while (const auto line = process.readLine())
        outcome.output += *line + "\n";
    outcome.code = process.waitForExit();
    outcome.errors = process.errors();
    return outcome;
}

/// A folder for the files of a test.
class ConfigFileTest : public testing::Test
{
protected:
    ConfigFileTest()
    {
        std::string path = testing::TempDir() + "commandline-XXXXXX";
        if (mkdtemp(path.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        folder = path;
    }

    ~ConfigFileTest() override { std::filesystem::remove_all(folder); }

    void write(const std::string& text) const { std::ofstream(file(), std::ios::binary) << text; }
    std::string file() const { return folder + "/broker.conf"; }

    std::string folder;
};

/// Names of tests may contain only letters and digits.
inline std::string testName(std::string text, std::size_t index)
{
    const auto isOther = [](char letter) { return isalnum(static_cast<unsigned char>(letter)) == 0; };
    text.erase(std::remove_if(text.begin(), text.end(), isOther), text.end());
    return text + "_" + std::to_string(index);
}

#endif
