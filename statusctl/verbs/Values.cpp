// get, set and reset: they take keys by name.

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "statusctl/base/ChildCommand.h"
#include "statusctl/device/Device.h"
#include "statusctl/text/Input.h"
#include "statusctl/text/Json.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/DetailsText.h"
#include "statusctl/verbs/Names.h"
#include "statusctl/verbs/Taken.h"
#include "statusctl/verbs/Verb.h"

namespace
{

CLI::Option* addKeys(CLI::App& command, std::vector<std::string>& keys, const char* text)
{
    return command.add_option("KEY", keys, text)->required();
}

StatusKeys listOf(const std::vector<std::string>& keys)
{
    return {keys.begin(), keys.end()};
}

[[noreturn]] void failToFind(const Names::List& missing)
{
    throw Failure(ExitCode::NotFound, "no value for " + Names::inQuotes(missing));
}

// ----------------------------------------------------------------------------------------------------- get

class Get : public IVerb
{
public:
    explicit Get(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(app, "get", "Print the values of keys",
                                            "statusctl get door\n"
                                            "statusctl get door lamp --default unknown\n"
                                            "statusctl get 'net.*'\n"
                                            "statusctl get --long door lamp");
        addKeys(
            command, mKeys,
            "Keys and globs. One key prints only its value; several keys or a glob print KEY=VALUE lines");
        command
            .add_option("--default", mDefault,
                        "Print this for a key that does not exist, instead of exit code 3")
            ->type_name("VALUE");
        command.add_flag("--long", mIsLong, "Print a table with the times and the clients of the last posts")
            ->excludes("--default");
        Names::addLiteral(command, "KEY", mIsLiteral);
        command.callback([this] { Names::checkFilled(mKeys); });
    }

    ExitCode run(const Settings& settings) override
    {
        const Names::Resolved names = Names::resolve(settings, mKeys, mIsLiteral);
        if (mIsLong)
            return runLong(settings, names);
        Device device(settings);
        StatusMap values = device.values(listOf(names.keys));
        Names::List missing = names.unmatched;
        for (const std::string& key : names.keys)
        {
            if (values.count(key) != 0)
                continue;
            if (mDefault)
                values[key] = *mDefault;
            else
                missing.push_back(key);
        }
        if (!missing.empty())
            failToFind(missing);
        print(settings, names, values);
        return ExitCode::Done;
    }

private:
    static ExitCode runLong(const Settings& settings, const Names::Resolved& names)
    {
        const Details::ByKey details = Details::of(settings, listOf(names.keys));
        Names::List missing = names.unmatched;
        std::copy_if(names.keys.begin(), names.keys.end(), std::back_inserter(missing),
                     [&](const std::string& key) { return details.count(key) == 0; });
        if (!missing.empty())
            failToFind(missing);
        Output output(settings);
        DetailsText::printLong(output, settings, details);
        return ExitCode::Done;
    }

    // Prints in the order of the arguments.
    static void print(const Settings& settings, const Names::Resolved& names, const StatusMap& values)
    {
        Output output(settings);
        if (settings.isJson())
            return output.json(JsonText::ofValues(values));
        const bool isAlone = names.keys.size() == 1 && !names.hasGlobs;
        for (const std::string& key : names.keys)
        {
            const std::string& value = values.at(key);
            if (isAlone)
                output.line(output.isTerminal() ? Text::harmless(value) : value);
            else
                output.line(Text::escapedName(key) + "=" + Text::escaped(value));
        }
    }

    std::vector<std::string> mKeys;
    std::optional<std::string> mDefault;
    bool mIsLong = false;
    bool mIsLiteral = false;
};

// ----------------------------------------------------------------------------------------------------- set

class Set : public IVerb
{
public:
    explicit Set(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(app, "set", "Set values, all in one message",
                                            "statusctl set door open\n"
                                            "statusctl set lamp on fan off\n"
                                            "statusctl set log - < report.txt\n"
                                            "statusctl set note -- -text-with-a-dash\n"
                                            "statusctl set update.state running --while -- apply-update");
        command
            .add_option("KEY VALUE", mWords,
                        "Pairs. The value \"-\" is read from standard input, byte for byte. "
                        "An empty value resets the key")
            ->required();
        command.add_flag(
            "--no-sync", mNoSync,
            "Wait at most a second until the broker has taken the values, and do not check them");
        command.add_flag(
            "--while", mIsWhile,
            "After one pair: run COMMAND, and stay connected until it ends. "
            "If the policy says that the value ends with its owner, it ends then. Exits as the command does");
        Names::addLiteral(command, "KEY", mIsLiteral);
        command.callback(
            [this]
            {
                if (mIsWhile)
                    takeCommand();
                if (mWords.size() % 2 != 0)
                    failWithoutValue(mWords.back());
                Names::checkExact(keys(), mIsLiteral);
                if (inputs() > 1)
                    throw CLI::ValidationError("only one value can be read from standard input");
            });
    }

    ExitCode run(const Settings& settings) override
    {
        const StatusMap values = readValues();
        Device device(settings);
        if (mNoSync)
        {
            device.post(values);
            device.leaveTime();
        }
        else
            post(device, values);
        return mIsWhile ? static_cast<ExitCode>(ChildCommand(mCommand).wait()) : ExitCode::Done;
    }

private:
    [[noreturn]] static void failWithoutValue(const std::string& key)
    {
        const std::size_t equals = key.find('=');
        throw CLI::ValidationError("missing value after \"" + key + "\" (usage: set KEY VALUE...)" +
                                   (equals == std::string::npos ? ""
                                                                : "; write: set " + key.substr(0, equals) +
                                                                      " " + key.substr(equals + 1)));
    }

    // Takes the words behind the pair.
    void takeCommand()
    {
        constexpr std::size_t pair = 2;
        if (mWords.size() <= pair)
            throw CLI::ValidationError("--while needs one KEY, its VALUE, and a COMMAND behind them");
        const auto begin = mWords.begin() + pair;
        mCommand.assign(begin, mWords.end());
        mWords.erase(begin, mWords.end());
    }

    static void post(Device& device, const StatusMap& values)
    {
        const StatusKeys keys = Names::keysOf(values);
        const StatusMap before = device.values(keys);
        device.post(values);
        device.confirm();
        checkTaken(values, before, device.values(keys));
    }

    Names::List keys() const
    {
        Names::List keys;
        for (std::size_t index = 0; index < mWords.size(); index += 2)
            keys.push_back(mWords[index]);
        return keys;
    }

    std::size_t inputs() const
    {
        std::size_t count = 0;
        for (std::size_t index = 1; index < mWords.size(); index += 2)
            count += mWords[index] == "-" ? 1U : 0U;
        return count;
    }

    StatusMap readValues() const
    {
        StatusMap values;
        for (std::size_t index = 0; index + 1 < mWords.size(); index += 2)
            values[mWords[index]] = mWords[index + 1] == "-" ? Input::all() : mWords[index + 1];
        return values;
    }

    static void checkTaken(const StatusMap& wanted, const StatusMap& before, const StatusMap& after)
    {
        const Names::List refused = Taken::refused(wanted, before, after);
        Names::List taken;
        for (const auto& [key, value] : wanted)
        {
            if (std::find(refused.begin(), refused.end(), key) == refused.end())
                taken.push_back(key);
        }
        if (!refused.empty())
            throw Failure(ExitCode::Failed,
                          "the broker refused " + Names::inQuotes(refused) +
                              (taken.empty() ? "" : " and took " + Names::inQuotes(taken)) + "; see its log",
                          {{"refused", refused}, {"taken", taken}});
    }

    std::vector<std::string> mWords;
    bool mNoSync = false;
    bool mIsWhile = false;
    bool mIsLiteral = false;
    std::vector<std::string> mCommand;
};

// --------------------------------------------------------------------------------------------------- reset

class Reset : public IVerb
{
public:
    explicit Reset(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(app, "reset", "Reset values: they become empty",
                                            "statusctl reset door lamp\nstatusctl reset 'net.*'");
        addKeys(command, mKeys,
                "Keys and globs. A key that does not exist is created, empty. If a glob matches no key, "
                "nothing is reset");
        Names::addLiteral(command, "KEY", mIsLiteral);
        command.callback([this] { Names::checkFilled(mKeys); });
    }

    ExitCode run(const Settings& settings) override
    {
        const Names::Resolved names = Names::resolve(settings, mKeys, mIsLiteral);
        if (!names.unmatched.empty())
            throw Failure(ExitCode::NotFound, "no key matches " + Names::inQuotes(names.unmatched));
        Device device(settings);
        device.reset(listOf(names.keys));
        device.confirm();
        return ExitCode::Done;
    }

private:
    std::vector<std::string> mKeys;
    bool mIsLiteral = false;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addGet(CLI::App& app)
{
    return std::make_unique<Get>(app);
}

std::unique_ptr<IVerb> Verbs::addSet(CLI::App& app)
{
    return std::make_unique<Set>(app);
}

std::unique_ptr<IVerb> Verbs::addReset(CLI::App& app)
{
    return std::make_unique<Reset>(app);
}
