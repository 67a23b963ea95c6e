// dump and load: all values out, and in again.

#include <cstdio>
#include <iterator>
#include <unistd.h>

#include "statusctl/device/Device.h"
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
                                            "statusctl dump --json > backup.json");
        command.add_option("GLOB", mGlobs, "Only keys that match one of these");
        command.add_flag("--keys", mKeysOnly, "Print the keys alone");
        command.add_flag("--long", mIsLong, "Print a table: also when they changed, and who posted them")
            ->excludes("--keys");
        command.callback([this] { Names::checkFilled(mGlobs); });
    }

    ExitCode run(const Settings& settings) override
    {
        const Pattern pattern(mGlobs);
        Device device(settings);
        StatusMap values = device.ask([](StatusManager& manager) { return manager.getClientInfo(); });
        for (auto value = values.begin(); value != values.end();)
            value = pattern.empty() || pattern.matches(value->first) ? std::next(value) : values.erase(value);
        Output output(settings);
        if (mIsLong)
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

    std::vector<std::string> mGlobs;
    bool mKeysOnly = false;
    bool mIsLong = false;
};

// ---------------------------------------------------------------------------------------------------- load

/// On standard error, where that is a terminal.
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
        CLI::App& command = Verbs::describe(app, "load", "Post values that \"dump --json\" has written",
                                            "statusctl load backup.json\n"
                                            "statusctl -t 1m load - < backup.json\n"
                                            "statusctl load --dry-run backup.json");
        command.add_option("FILE", mFile, "The file, or - for standard input")->required();
        command.add_flag("--dry-run", mDryRun, "Only read and check the file");
    }

    ExitCode run(const Settings& settings) override
    {
        const StatusMap values = JsonText::readValues(Input::all(mFile));
        if (!mDryRun)
            post(settings, values);
        if (!settings.quiet)
            Output(settings).number("loaded", values.size());
        return ExitCode::Done;
    }

private:
    // Each batch is confirmed before the next one goes, so none is dropped on the way.
    static void post(const Settings& settings, const StatusMap& values)
    {
        constexpr std::size_t batchBytes = std::size_t{32} * 1024;
        Device device(settings);
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
