#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "statusctl/device/Feed.h"
#include "statusctl/text/LineFormat.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Report.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/Following.h"
#include "statusctl/verbs/Selection.h"
#include "statusctl/verbs/Staleness.h"
#include "statusctl/verbs/Verb.h"

namespace
{

constexpr const char* help =
    "KEY is exact or a glob (*, ?, [...]). Keys that appear later are followed as well. A glob, of keys\n"
    "or of events, costs a second subscription: the broker sends every notification to this process\n"
    "twice, whether its name matches or not.\n"
    "Only --stale polls: it asks the broker when a key may have become stale, because the broker does\n"
    "not report posts that change nothing.\n"
    "When the broker goes, \"lost\" is printed. When it is back, the values that differ are printed, then\n"
    "\"synced\". A key that the broker does not have any more is \"gone\". Events in between are missed.\n"
    "The words after \"--\" are a command. It runs for each line, one after the other, with STATUS_KEY,\n"
    "STATUS_VALUE and STATUS_KIND in its environment.";

class Watch : public IVerb
{
public:
    explicit Watch(CLI::App& app)
        : mCommand(Verbs::describe(app, "watch", "Print values, then each change as it arrives",
                                   "statusctl watch door 'net.*' --event bell\n"
                                   "statusctl watch -n 1 --updates door\n"
                                   "statusctl watch --stale 10s 'sensor.*'\n"
                                   "statusctl watch --only event\n"
                                   "statusctl watch --updates --format '%k %v' 'net.*'\n"
                                   "statusctl -q watch door -- sh -c 'echo \"$STATUS_KEY: $STATUS_VALUE\"'",
                                   help)),
          mSelection(mCommand), mFollowing(mCommand)
    {
        mCommand.add_flag("--updates", mUpdatesOnly, "Leave out the initial values and the first \"synced\"");
        Verbs::addDuration(mCommand, "--stale", mStale,
                           "Also report keys that have not been posted for that long, "
                           "once until the next post; 100ms or more");
        addForm();
        mCommand.callback([this] { check(); });
    }

    ExitCode run(const Settings& settings) override
    {
        if (settings.isJson() && (mFormat || mIsRaw))
            throw Failure(ExitCode::WrongUsage, "--json excludes --format and --raw");
        Device device = mFollowing.connect(settings);
        Output output(settings);
        std::optional<Staleness> staleness;
        if (mStale)
            staleness.emplace(settings, *mStale);
        Feed feed(device, mSelection.keys(), mSelection.events(),
                  [&](const Change& change)
                  {
                      if (staleness)
                          staleness->hear(change);
                      return show(settings, output, change);
                  });
        feed.start();
        const bool isEnough = staleness ? waitForStale(settings, output, device, feed, *staleness)
                                        : feed.wait(settings.timeout);
        if (!isEnough)
            leaveWith(settings, Following::timedOut(settings)); // does not wait for a running command
        return ExitCode::Done;
    }

private:
    static constexpr std::chrono::milliseconds shortestStale{100};

    void addForm()
    {
        const auto take = [this](const std::string& text) { mFormat.emplace(text); };
        mCommand
            .add_option_function<std::string>(
                "--format", take,
                "Print lines of this form: %t is the local time, %w the kind (initial, changed, ...), "
                "%k the name, %v the value, %% a percent sign. "
                "Without %w, \"synced\" and \"lost\" are left out")
            ->type_name("FORMAT");
        mCommand.add_flag(
            "--raw", mIsRaw,
            "Print names and values byte for byte; on a terminal, escape bytes that could harm it");
    }

    void check() const
    {
        mSelection.check();
        if (mStale && *mStale < shortestStale)
            throw CLI::ValidationError("--stale must be at least 100ms");
        const std::string unknown = mFormat ? mFormat->unknownField("twkv") : "";
        if (!unknown.empty())
            throw CLI::ValidationError("unknown field \"" + unknown +
                                       "\" in --format; use %t, %w, %k, %v or %%");
    }

    // Waits like Feed::wait(), and reports stale keys meanwhile.
    bool waitForStale(const Settings& settings, Output& output, const Device& device, Feed& feed,
                      Staleness& staleness)
    {
        using std::chrono::milliseconds;
        for (;;)
        {
            const milliseconds next = std::chrono::ceil<milliseconds>(staleness.nextLook() - device.begin());
            if (feed.wait(std::min(next, settings.timeout.value_or(milliseconds::max()))))
                return true;
            if (settings.timeout && *settings.timeout <= next)
                return false;
            for (const Change& change : staleness.look())
            {
                if (!show(settings, output, change))
                    return true;
            }
        }
    }

    // Runs on the feed's thread; for stale keys, on the main thread.
    bool show(const Settings& settings, Output& output, const Change& change)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsEnough = mIsEnough || !showNext(settings, output, change);
        return !mIsEnough;
    }

    bool showNext(const Settings& settings, Output& output, const Change& change)
    {
        const bool isBeginning = !mIsSynced;
        mIsSynced = mIsSynced || change.kind == Change::Kind::Synced;
        if (mUpdatesOnly && isBeginning && !isUpdate(change.kind))
            return true;
        if (!settings.quiet)
            print(settings, output, change);
        if (!settings.command.empty() && !isMark(change.kind))
            runCommand(settings.command, change);
        return mSelection.wantsMoreAfter(change);
    }

    void print(const Settings& settings, Output& output, const Change& change) const
    {
        if (settings.isJson())
            output.streamed(toJson(change));
        else if (mFormat)
            printFormatted(output, change);
        else
            output.line(lineOf(output, change));
    }

    std::string lineOf(const Output& output, const Change& change) const
    {
        const Output::Color color =
            change.kind == Change::Kind::Changed ? Output::Color::Green
            : change.kind == Change::Kind::Reset || change.kind == Change::Kind::Stale ||
                    change.kind == Change::Kind::Gone
                ? Output::Color::Yellow
            : change.kind == Change::Kind::Event || change.kind == Change::Kind::Lost ? Output::Color::Red
                                                                                      : Output::Color::Dim;
        std::string line = output.colored(Timestamp::local(change.time), Output::Color::Dim) + " " +
                           output.colored(nameOf(change.kind), color);
        if (!isMark(change.kind))
            line += " " + name(output, change) + " " + value(output, change);
        return line;
    }

    // A mark has neither name nor value: without its kind the line would be empty.
    void printFormatted(Output& output, const Change& change) const
    {
        if (isMark(change.kind) && !mFormat->has('w'))
            return;
        output.line(mFormat->fill(
            [&](char letter)
            {
                switch (letter)
                {
                case 't':
                    return Timestamp::local(change.time);
                case 'w':
                    return std::string(nameOf(change.kind));
                case 'k':
                    return name(output, change);
                default:
                    return value(output, change);
                }
            }));
    }

    std::string name(const Output& output, const Change& change) const
    {
        return mIsRaw ? raw(output, change.name) : Text::escapedName(change.name);
    }

    std::string value(const Output& output, const Change& change) const
    {
        return mIsRaw ? raw(output, change.value) : Text::escaped(change.value);
    }

    static std::string raw(const Output& output, const std::string& text)
    {
        return output.isTerminal() ? Text::harmless(text) : text;
    }

    // Ignores the command's exit code, but fails if it cannot be started.
    static void runCommand(const std::vector<std::string>& command, const Change& change)
    {
        std::vector<std::string> variables{"STATUS_KEY=" + change.name, "STATUS_VALUE=" + change.value,
                                           std::string("STATUS_KIND=") + nameOf(change.kind)};
        std::vector<char*> environment;
        environment.reserve(variables.size());
        for (std::string& variable : variables)
            environment.push_back(variable.data());
        for (char** inherited = environ; *inherited != nullptr; ++inherited)
        {
            if (std::strncmp(*inherited, "STATUS_", std::strlen("STATUS_")) != 0)
                environment.push_back(*inherited);
        }
        environment.push_back(nullptr);
        std::vector<char*> arguments;
        arguments.reserve(command.size() + 1);
        for (const std::string& word : command)
            arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);

        pid_t child = -1;
        const int error = spawn(child, arguments, environment);
        if (error != 0)
            throw Failure(ExitCode::Failed,
                          "cannot run \"" + command.front() + "\": " + std::strerror(error));
        int status = 0;
        while (waitpid(child, &status, 0) == -1 && errno == EINTR)
        {
        }
    }

    // The feed's thread blocks all signals. The command must not inherit that.
    static int spawn(pid_t& child, const std::vector<char*>& arguments, const std::vector<char*>& environment)
    {
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
        const int error = posix_spawnp(&child, arguments.front(), nullptr, &attributes, arguments.data(),
                                       environment.data());
        posix_spawnattr_destroy(&attributes);
        return error;
    }

    CLI::App& mCommand;
    Selection mSelection;
    Following mFollowing;
    std::optional<LineFormat> mFormat;
    bool mIsRaw = false;
    bool mUpdatesOnly = false;
    bool mIsSynced = false;
    std::optional<std::chrono::milliseconds> mStale;
    std::mutex mMutex;
    bool mIsEnough = false;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addWatch(CLI::App& app)
{
    return std::make_unique<Watch>(app);
}
