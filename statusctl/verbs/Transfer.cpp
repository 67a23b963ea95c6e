// dump and load: save and restore the state of the device.

#include <algorithm>
#include <cstdio>
#include <set>
#include <unistd.h>

#include "statusctl/device/Device.h"
#include "statusctl/health/Backup.h"
#include "statusctl/text/Input.h"
#include "statusctl/text/Json.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Pattern.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/DetailsText.h"
#include "statusctl/verbs/Names.h"
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
            DetailsText::printLong(output, settings, Details::of(settings, keysOf(values)));
        else if (mKeysOnly)
            printKeys(output, settings, values);
        else
            output.values(values);
        return ExitCode::Done;
    }

private:
    static StatusKeys keysOf(const StatusMap& values)
    {
        StatusKeys keys;
        for (const auto& [key, value] : values)
            keys.push_back(key);
        return keys;
    }

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

/// A progress bar on standard error, if that is a terminal.
class ProgressBar
{
public:
    explicit ProgressBar(const Settings& settings, std::size_t total)
        : mTotal(total), mIsShown(!settings.quiet && !settings.isJson() && isatty(STDERR_FILENO) != 0)
    {
    }
    ~ProgressBar()
    {
        if (mIsShown)
            std::fprintf(stderr, "\r\x1b[K");
    }

    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void show(std::size_t done) const
    {
        if (!mIsShown)
            return;
        constexpr std::size_t width = 40;
        const std::size_t full = mTotal == 0 ? width : done * width / mTotal;
        const std::string bar = std::string(full, '#') + std::string(width - full, '.');
        std::fprintf(stderr, "\r[%s] %zu of %zu", bar.c_str(), done, mTotal);
    }

private:
    const std::size_t mTotal;
    const bool mIsShown;
};

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
                            "list of them, even an empty one.");
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
            Device device(settings);
            post(settings, device, backup.values);
            if (backup.counters)
                setCounters(device, *backup.counters);
            if (backup.timers)
                setTimers(settings, *backup.timers);
            if (mReplace)
                removed = removeOthers(settings, device, backup);
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

    // Too many unconfirmed posts would be dropped on the way.
    static void setCounters(Device& device, const Inquiry::Counters& counters)
    {
        constexpr std::size_t unconfirmed = 250;
        std::size_t posted = 0;
        for (const auto& [name, number] : counters)
        {
            device.setCounter(name, number);
            if (++posted % unconfirmed == 0)
                device.confirm();
        }
        device.confirm();
    }

    static void setTimers(const Settings& settings, const Inquiry::Timers& timers)
    {
        check("the broker refused", "timers", Inquiry::setTimers(settings, timers));
    }

    // Removes only names that this client may see.
    static std::size_t removeOthers(const Settings& settings, Device& device, const Backup& backup)
    {
        const StatusMap values = device.ask([](StatusManager& manager) { return manager.getClientInfo(); });
        std::size_t removed = remove(settings, Inquiry::Kind::Values, values, backup.values);
        if (backup.timers)
            removed += remove(settings, Inquiry::Kind::Timers, Inquiry::timers(settings), *backup.timers);
        if (backup.counters)
            removed +=
                remove(settings, Inquiry::Kind::Counters, Inquiry::counters(settings), *backup.counters);
        return removed;
    }

    template <typename Map>
    static std::size_t remove(const Settings& settings, Inquiry::Kind kind, const Map& there, const Map& kept)
    {
        std::vector<std::string> others;
        for (const auto& [name, value] : there)
        {
            if (kept.find(name) == kept.end())
                others.push_back(name);
        }
        const std::vector<std::string> gone = Inquiry::forget(settings, kind, others);
        const std::set<std::string> isGone(gone.begin(), gone.end());
        const auto hasGone = [&](const std::string& name) { return isGone.count(Text::valid(name)) != 0; };
        others.erase(std::remove_if(others.begin(), others.end(), hasGone), others.end());
        check("the policy denied the removal of", "names", others);
        return gone.size();
    }

    static void check(const std::string& problem, const std::string& what,
                      const std::vector<std::string>& refused)
    {
        if (!refused.empty())
            throw Failure(ExitCode::Failed, problem + " " + std::to_string(refused.size()) + " " + what +
                                                ", for example \"" + refused.front() + "\"");
    }

    // Confirms each batch before the next one, so that none is dropped on the way.
    static void post(const Settings& settings, Device& device, const StatusMap& values)
    {
        constexpr std::size_t batchBytes = std::size_t{32} * 1024;
        const ProgressBar progress(settings, values.size());
        StatusMap batch;
        std::size_t bytes = 0;
        std::size_t done = 0;
        for (const auto& [key, value] : values)
        {
            batch.emplace_hint(batch.end(), key, value);
            bytes += key.size() + value.size();
            ++done;
            if (bytes < batchBytes && done != values.size())
                continue;
            device.post(batch);
            device.confirm();
            progress.show(done);
            batch.clear();
            bytes = 0;
        }
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
