// top: a live screen.

#include <atomic>
#include <csignal>
#include <mutex>

#include "statusctl/base/Ending.h"
#include "statusctl/device/Device.h"
#include "statusctl/device/Feed.h"
#include "statusctl/device/Ports.h"
#include "statusctl/health/Listeners.h"
#include "statusctl/screen/TopModel.h"
#include "statusctl/screen/TopScreen.h"
#include "statusctl/verbs/Verb.h"

namespace
{

volatile std::sig_atomic_t caughtSignal = 0;

// The signals that end a process are only noted while the screen is on, so that it can be restored.
class SignalNote
{
public:
    SignalNote()
    {
        struct sigaction action
        {
        };
        action.sa_handler = [](int number) { caughtSignal = number; };
        for (const int number : signals)
            sigaction(number, &action, nullptr);
    }
    ~SignalNote()
    {
        for (const int number : signals)
            std::signal(number, SIG_DFL);
    }

    SignalNote(const SignalNote&) = delete;
    SignalNote& operator=(const SignalNote&) = delete;

private:
    static constexpr int signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
};

class Top : public IVerb
{
public:
    explicit Top(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(
            app, "top", "Show values and events on a live screen",
            "statusctl top\n"
            "statusctl top 'net.*'",
            "Keys, values, the time since the last change, changes a second over the last ten seconds, and\n"
            "events. Type to filter; Esc clears the filter; arrows and page keys scroll; q leaves. The time\n"
            "since a change is shown once there was one: the broker does not tell of those before.");
        command.add_option("KEY", mKeys, "Only these keys and globs");
    }

    ExitCode run(const Settings& settings) override
    {
        TopScreen::checkTerminal();
        Device device(settings);
        Feed feed(device, Pattern(mKeys.empty() ? std::vector<std::string>{"*"} : mKeys), Pattern({"*"}),
                  [this](const Change& change)
                  {
                      const std::lock_guard<std::mutex> lock(mMutex);
                      mModel.take(change, TopModel::Clock::now());
                      return true;
                  });
        feed.start(); // as long as this may take, signals end the process
        {
            const SignalNote note;
            TopScreen screen(settings.color);
            show(screen, feed);
        }
        if (caughtSignal != 0)
            endBy(caughtSignal);
        return ExitCode::Done;
    }

private:
    void show(TopScreen& screen, Feed& feed)
    {
        constexpr std::chrono::milliseconds pace{250};
        do
        {
            feed.wait(std::chrono::milliseconds(0)); // throws what has gone wrong
            const bool hasBroker = Listeners::areOn(Ports::all.front().number);
            const std::lock_guard<std::mutex> lock(mMutex);
            screen.draw(mModel, hasBroker);
        } while (caughtSignal == 0 && screen.readKey(pace) == TopScreen::Wish::Stay);
    }

    std::vector<std::string> mKeys;
    std::mutex mMutex;
    TopModel mModel; // under the mutex
};

} // namespace

std::unique_ptr<IVerb> Verbs::addTop(CLI::App& app)
{
    return std::make_unique<Top>(app);
}
