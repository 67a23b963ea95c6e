// dump and load: save and restore the state of the device.

#include "statusctl/device/Device.h"
#include "statusctl/health/Backup.h"
#include "statusctl/text/Input.h"
#include "statusctl/text/Json.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Pattern.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/DetailsText.h"
#include "statusctl/verbs/Names.h"
#include "statusctl/verbs/Restore.h"
#include "statusctl/verbs/Verb.h"

namespace
{

// ---------------------------------------------------------------------------------------------------- dump

class Dump : public IVerb
{
public:
    explicit Dump(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(app, "dump", "Print all values, sorted by key",
                                            "statusctl dump\n"
                                            "statusctl dump 'net.*' 'disk.?'\n"
                                            "statusctl dump --long 'net.*'\n"
                                            "statusctl dump --json > backup.json\n"
                                            "statusctl dump --all --json > backup.json");
        command.add_option("GLOB", mGlobs, "Print only keys that match one of these globs");
        command.add_flag("--keys", mKeysOnly, "Print only the keys");
        command.add_flag("--long", mIsLong, "Print a table with the times and the clients of the last posts")
            ->excludes("--keys");
        command.add_flag("--all", mIsAll, "Also print timers (microseconds) and counters")
            ->excludes("--keys")
            ->excludes("--long");
        command.callback([this] { Names::checkFilled(mGlobs); });
    }

    ExitCode run(const Settings& settings) override
    {
        const Pattern pattern(mGlobs);
        Device device(settings);
        const StatusMap values =
            pattern.matching(device.ask([](StatusManager& manager) { return manager.getClientInfo(); }));
        Output output(settings);
        if (mIsAll)
            printAll(output, settings,
                     {values, pattern.matching(Inquiry::timers(settings)),
                      pattern.matching(Inquiry::counters(settings))});
        else if (mIsLong)
            DetailsText::printLong(output, settings, Details::of(settings, Names::keysOf(values)));
        else if (mKeysOnly)
            printKeys(output, settings, values);
        else
            output.values(values);
        return ExitCode::Done;
    }

private:
    static void printKeys(Output& output, const Settings& settings, const StatusMap& values)
    {
        Json::Value list(Json::arrayValue);
        for (const auto& [key, value] : values)
        {
            if (settings.isJson())
                list.append(Text::valid(key));
            else
                output.line(Text::escaped(key));
        }
        if (settings.isJson())
            output.json(list);
    }

    // A key is never printed with a blank in it, so lines of timers and counters differ from lines of values.
    static void printAll(Output& output, const Settings& settings, const Backup& backup)
    {
        if (settings.isJson())
            return output.json(backup.toJson());
        output.values(backup.values);
        for (const auto& [name, timer] : *backup.timers)
            output.line("timer " + Text::escapedName(name) + "=" + std::to_string(timer.elapsed));
        for (const auto& [name, counter] : *backup.counters)
            output.line("counter " + Text::escapedName(name) + "=" + std::to_string(counter));
    }

    std::vector<std::string> mGlobs;
    bool mIsAll = false;
    bool mKeysOnly = false;
    bool mIsLong = false;
};

// ---------------------------------------------------------------------------------------------------- load

class Load : public IVerb
{
public:
    explicit Load(CLI::App& app)
    {
        CLI::App& command =
            Verbs::describe(app, "load", "Restore the values that \"dump --json\" has written",
                            "statusctl load backup.json\n"
                            "statusctl -t 1m load - < backup.json\n"
                            "statusctl load --dry-run backup.json\n"
                            "statusctl load --replace backup.json",
                            "Also restores timers and counters if \"dump --all\" has written them. A timer\n"
                            "that was running continues from its saved time. --replace forgets keys that\n"
                            "are not in the file. It forgets timers or counters only if the file has a\n"
                            "list of them, even an empty one. If the broker refuses something, load\n"
                            "exits with 1, and --replace forgets nothing.");
        command.add_option("FILE", mFile, "The file, or - for standard input")->required();
        command.add_flag("--dry-run", mDryRun, "Only read and check the file");
        command.add_flag("--replace", mReplace, "Remove the names that are not in the file");
    }

    ExitCode run(const Settings& settings) override
    {
        const Backup backup = Backup::read(Input::all(mFile));
        std::size_t removed = 0;
        if (!mDryRun)
        {
            Restore restore(settings, backup);
            if (mReplace)
                removed = restore.replace();
            else
                restore.post();
        }
        if (!settings.quiet)
            print(settings, backup.names(), removed);
        return ExitCode::Done;
    }

private:
    void print(const Settings& settings, std::size_t loaded, std::size_t removed) const
    {
        Output output(settings);
        if (!mReplace || mDryRun)
            return output.number("loaded", loaded);
        if (!settings.isJson())
            return output.line(std::to_string(loaded) + " loaded, " + std::to_string(removed) + " removed");
        Json::Value object(Json::objectValue);
        object["loaded"] = static_cast<Json::UInt64>(loaded);
        object["removed"] = static_cast<Json::UInt64>(removed);
        output.json(object);
    }

    std::string mFile;
    bool mDryRun = false;
    bool mReplace = false;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addDump(CLI::App& app)
{
    return std::make_unique<Dump>(app);
}

std::unique_ptr<IVerb> Verbs::addLoad(CLI::App& app)
{
    return std::make_unique<Load>(app);
}
