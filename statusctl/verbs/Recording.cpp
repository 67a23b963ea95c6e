// record and replay.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>
#include <unistd.h>

#include "statusctl/base/Ending.h"
#include "statusctl/device/Device.h"
#include "statusctl/device/Feed.h"
#include "statusctl/text/Json.h"
#include "statusctl/text/Output.h"
#include "statusctl/verbs/Following.h"
#include "statusctl/verbs/Selection.h"
#include "statusctl/verbs/Verb.h"

namespace
{

// -------------------------------------------------------------------------------------------------- record

/// A file that is flushed after each line: it is complete even if the process is killed.
class LineFile
{
public:
    explicit LineFile(const std::string& name)
        : mName(name),
          mFile(name == "-" ? fdopen(dup(STDOUT_FILENO), "w") : std::fopen(name.c_str(), "we"), &std::fclose)
    {
        if (!mFile)
            fail();
    }

    void write(const std::string& line)
    {
        if (std::fwrite(line.data(), 1, line.size(), mFile.get()) != line.size() ||
            std::fputc('\n', mFile.get()) == EOF || std::fflush(mFile.get()) != 0)
            fail();
    }

private:
    [[noreturn]] void fail() const
    {
        if (errno == EPIPE)
            endBy(SIGPIPE); // the default action alone would not end a thread that blocks it
        throw Failure(ExitCode::Failed, "cannot write " + mName + ": " + std::strerror(errno));
    }

    std::string mName;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> mFile;
};

class Record : public IVerb
{
public:
    explicit Record(CLI::App& app)
        : mCommand(Verbs::describe(app, "record", "Write values and changes to a file, with their times",
                                   "statusctl record day.jsonl\n"
                                   "statusctl -t 1h record net.jsonl 'net.*' --event 'net.*'",
                                   "The file gets the lines of \"watch --json\". The recording ends after\n"
                                   "the time of -t, or with a signal.")),
          mFollowing(mCommand)
    {
        mCommand.add_option("FILE", mFile, "The file, or - for standard output; it is overwritten")
            ->required();
        mSelection.emplace(mCommand);
        mCommand.callback([this] { mSelection->check(); });
    }

    ExitCode run(const Settings& settings) override
    {
        Device device = mFollowing.connect(settings); // first: without a broker, an old file stays
        LineFile file(mFile);
        Feed feed(device, mSelection->keys(), mSelection->events(),
                  [&](const Change& change)
                  {
                      file.write(JsonText::write(toJson(change), Settings::Json::Short));
                      return mSelection->wantsMoreAfter(change);
                  });
        feed.start();
        feed.wait(settings.timeout); // a recording may end by -t: that is no failure
        return ExitCode::Done;
    }

private:
    CLI::App& mCommand;
    Following mFollowing;
    std::string mFile;
    std::optional<Selection> mSelection; // created after FILE, because its KEYs stand behind it
};

// -------------------------------------------------------------------------------------------------- replay

class Replay : public IVerb
{
public:
    explicit Replay(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(app, "replay", "Replay a recording with its original timing",
                                            "statusctl replay day.jsonl\n"
                                            "statusctl replay day.jsonl --speed 60\n"
                                            "statusctl replay --dry-run day.jsonl");
        command.add_option("FILE", mFile, "The file, or - for standard input")->required();
        command.add_option("--speed", mSpeed, "Replay X times as fast; 0: as fast as the broker takes posts")
            ->type_name("X")
            ->check(CLI::Validator(checkSpeed, ""))
            ->capture_default_str();
        command.add_flag("--dry-run", mDryRun, "Only read and check the file");
    }

    ExitCode run(const Settings& settings) override
    {
        obeyInterrupts(); // the replay may take days
        std::ifstream file;
        if (mFile != "-")
            file.open(mFile, std::ios::binary);
        std::istream& lines = mFile == "-" ? std::cin : file;
        if (mFile != "-" && !file.is_open())
            throw Failure(ExitCode::Failed, "cannot read " + mFile);
        std::optional<Device> device;
        if (!mDryRun)
            device.emplace(settings);
        const uint64_t posted = replay(lines, device ? &*device : nullptr);
        if (device)
            device->confirm();
        if (!settings.quiet)
            Output(settings).number("posted", posted);
        return ExitCode::Done;
    }

private:
    static std::string checkSpeed(const std::string& text)
    {
        double speed = -1;
        const bool isNumber = CLI::detail::lexical_cast(text, speed);
        return isNumber && (speed == 0 || (speed >= 1e-3 && speed <= 1e6))
                   ? ""
                   : "must be 0, or from 0.001 to 1000000";
    }

    // Only reads the lines if there is no device. Returns the number of posts.
    uint64_t replay(std::istream& lines, Device* device)
    {
        uint64_t posted = 0;
        uint64_t number = 0;
        for (std::string line; std::getline(lines, line);)
        {
            ++number;
            const std::optional<Change> change = readChange(line);
            if (!change)
                throw Failure(ExitCode::Failed,
                              mFile + ":" + std::to_string(number) + ": not a line of a recording");
            if (isMark(change->kind) || change->kind == Change::Kind::Stale)
                continue;
            ++posted;
            if (device == nullptr)
                continue;
            waitFor(*change);
            post(*device, *change);
        }
        if (lines.bad())
            throw Failure(ExitCode::Failed, "cannot read " + mFile);
        return posted;
    }

    // Initial values are posted at once. The first change sets the start of the clock.
    void waitFor(const Change& change)
    {
        if (mSpeed == 0 || change.kind == Change::Kind::Initial)
            return;
        if (!mFirst)
        {
            mFirst = change.time;
            mBegin = std::chrono::steady_clock::now();
        }
        const std::chrono::duration<double> since = change.time - *mFirst;
        std::this_thread::sleep_until(
            mBegin + std::chrono::duration_cast<std::chrono::steady_clock::duration>(since / mSpeed));
    }

    static void post(Device& device, const Change& change)
    {
        if (change.kind == Change::Kind::Event)
            device.postEvent(change.name, change.value);
        else
            device.post({{change.name, change.value}});
    }

    std::string mFile;
    double mSpeed = 1;
    bool mDryRun = false;
    std::optional<Timestamp::Time> mFirst;
    std::chrono::steady_clock::time_point mBegin;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addRecord(CLI::App& app)
{
    return std::make_unique<Record>(app);
}

std::unique_ptr<IVerb> Verbs::addReplay(CLI::App& app)
{
    return std::make_unique<Replay>(app);
}
