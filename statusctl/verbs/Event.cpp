#include <string>
#include <thread>

#include "statusctl/device/Feed.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/Following.h"
#include "statusctl/verbs/Names.h"
#include "statusctl/verbs/Verb.h"

namespace
{

class Event : public IVerb
{
public:
    explicit Event(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(app, "event", "Post an event, or wait for one",
                                            "statusctl event bell rang\n"
                                            "statusctl event reminder --after 10m\n"
                                            "statusctl -t 30 event --wait bell");
        Names::addName(command, mName, mIsLiteral);
        CLI::Option* value = command.add_option("VALUE", mValue, "Its value; empty by default");
        CLI::Option* after = Verbs::addDuration(command, "--after", mAfter, "Post it after this time");
        CLI::Option* wait = command.add_flag("--wait", mWait, "Wait for the event and print its value")
                                ->excludes(value)
                                ->excludes(after);
        mFollowing.emplace(command);
        mFollowing->option()->needs(wait);
        command.callback([this] { Names::checkExact({mName}, mIsLiteral); });
    }

    ExitCode run(const Settings& settings) override
    {
        if (mWait)
            wait(settings);
        else
            post(settings);
        return ExitCode::Done;
    }

private:
    // The library can delay it as well, but would not report when the broker has taken it.
    void post(const Settings& settings) const
    {
        Device device(settings);
        if (mAfter)
            std::this_thread::sleep_for(*mAfter);
        device.postEvent(mName, mValue);
        device.confirm();
    }

    void wait(const Settings& settings)
    {
        Device device = mFollowing->connect(settings);
        Output output(settings);
        Feed feed(device, Pattern(), Pattern::ofNames({mName}),
                  [&](const Change& change)
                  {
                      if (change.kind != Change::Kind::Event)
                          return true;
                      if (settings.isJson())
                          output.streamed(toJson(change));
                      else
                          output.line(Text::escaped(change.value));
                      return false;
                  });
        feed.start();
        if (!feed.wait(settings.timeout))
            throw Following::timedOut(settings, "no event \"" + mName + "\"");
    }

    std::string mName;
    std::string mValue;
    bool mIsLiteral = false;
    std::optional<std::chrono::milliseconds> mAfter;
    bool mWait = false;
    std::optional<Following> mFollowing;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addEvent(CLI::App& app)
{
    return std::make_unique<Event>(app);
}
