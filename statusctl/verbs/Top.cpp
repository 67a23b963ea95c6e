// top: a live screen.

#include <atomic>
#include <csignal>
#include <mutex>

#include "statusctl/base/Ending.h"
#include "statusctl/device/Device.h"
#include "statusctl/device/Feed.h"
#include "statusctl/device/Ports.h"
#include "statusctl/health/Details.h"
#include "statusctl/health/Listeners.h"
#include "statusctl/screen/TopModel.h"
#include "statusctl/screen/TopScreen.h"
#include "statusctl/verbs/DetailsText.h"
#include "statusctl/verbs/Names.h"
#include "statusctl/verbs/Verb.h"

namespace
{

volatile std::sig_atomic_t caughtSignal = 0;

// While the screen is on, these signals are only noted, so that the terminal can be restored first.
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

/// The details of the keys on the screen, renewed once a second.
class ShownDetails
{
public:
    void refresh(TopModel& model, std::mutex& mutex, const StatusKeys& shown)
    {
        constexpr std::chrono::seconds pause{1};
        const auto now = TopModel::Clock::now();
        if (!mCanTell || shown.empty() || (now < mNext && shown == mKeys))
            return;
        mNext = now + pause;
        mKeys = shown;
        const Details::ByKey found = ask();
        const Timestamp::Time time = Timestamp::now();
        const std::lock_guard<std::mutex> lock(mutex);
        for (const auto& [key, details] : found)
            model.takeDetails(key, ageOf(details, time), DetailsText::briefly(details.poster), now);
    }

private:
    // A failed look is repeated later; the screen manages without its result.
    Details::ByKey ask()
    {
        Settings settings;
        settings.timeout = std::chrono::milliseconds(200); // the screen does not react to keys meanwhile
        try
        {
            return Details::of(settings, mKeys);
        }
        catch (const Failure& failure)
        {
            mCanTell = failure.code() != ExitCode::BadReply;
            return {};
        }
    }

    static std::optional<std::chrono::microseconds> ageOf(const Details& details, Timestamp::Time now)
    {
        if (details.posted == 0)
            return std::nullopt;
        return now - Timestamp::Time(std::chrono::microseconds(details.posted));
    }

    TopModel::Clock::time_point mNext{};
    StatusKeys mKeys;
    bool mCanTell = true;
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
            "Shows keys, the time since their last post, changes a second over the last ten seconds, the\n"
            "client that posted last, values, and events. Type to filter; Esc clears the filter; arrows and\n"
            "page keys scroll; q quits. A narrow terminal has fewer columns. The screen queries the broker\n"
            "once a second for the posts of the visible keys, because not every post is a change.");
        command.add_option("KEY", mKeys, "Show only these keys and globs");
        command.callback([this] { Names::checkFilled(mKeys); });
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
        feed.start(); // until the screen is on, signals end the process
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
            feed.wait(std::chrono::milliseconds(0)); // throws the feed's failure
            const bool hasBroker = Listeners::areOn(Ports::all.front().number);
            if (hasBroker)
                mDetails.refresh(mModel, mMutex, screen.shown());
            const std::lock_guard<std::mutex> lock(mMutex);
            screen.draw(mModel, hasBroker);
        } while (caughtSignal == 0 && screen.readKey(pace) == TopScreen::Wish::Stay);
    }

    std::vector<std::string> mKeys;
    std::mutex mMutex;
    TopModel mModel; // under the mutex
    ShownDetails mDetails;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addTop(CLI::App& app)
{
    return std::make_unique<Top>(app);
}
