// timer and counter.

#include <string>

#include "statusctl/device/Device.h"
#include "statusctl/health/Backup.h"
#include "statusctl/health/Inquiry.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Text.h"
#include "statusctl/verbs/Names.h"
#include "statusctl/verbs/Verb.h"

namespace
{

void printObject(const Settings& settings, const char* name, const Json::Value& value)
{
    Json::Value object(Json::objectValue);
    object[name] = value;
    Output(settings).json(object);
}

void printPair(const Settings& settings, const std::string& name, uint64_t number)
{
    Output(settings).line(Text::escapedName(name) + "=" + std::to_string(number));
}

// --------------------------------------------------------------------------------------------------- timer

class Timers : public IVerb
{
public:
    explicit Timers(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(app, "timer", "Control and read the device's named timers",
                                            "statusctl timer restart boot\n"
                                            "statusctl timer show boot\n"
                                            "statusctl timer show boot --seconds\n"
                                            "statusctl timer list");
        command.require_subcommand(1);
        addAction(command, "start", "Start the timer; it continues from its present time",
                  &StatusManager::startTimer);
        addAction(command, "stop", "Stop the timer; it keeps its time", &StatusManager::stopTimer);
        addAction(command, "reset", "Clear its time; a present run still counts (\"restart\" begins at 0)",
                  &StatusManager::resetTimer);
        addAction(command, "restart", "Set it to 0 and start it", &StatusManager::restartTimer);
        CLI::App& show = *command.add_subcommand("show", "Print its time in microseconds");
        Names::addName(show, mName, mIsLiteral);
        CLI::App& list = *command.add_subcommand("list", "Print all timers, as NAME=MICROSECONDS");
        list.callback([this] { mIsList = true; });
        for (CLI::App* each : {&show, &list})
            each->add_flag("--seconds", mInSeconds, "Print whole seconds instead");
        command.callback(
            [this, &list]
            {
                if (!list.parsed())
                    Names::checkExact({mName}, mIsLiteral);
            });
    }

    ExitCode run(const Settings& settings) override
    {
        if (mIsList)
        {
            list(settings);
            return ExitCode::Done;
        }
        Device device(settings);
        if (mAction == nullptr)
        {
            show(settings, device);
            return ExitCode::Done;
        }
        (device.manager().*mAction)(mName);
        device.confirm();
        return ExitCode::Done;
    }

private:
    using Action = void (StatusManager::*)(std::string);

    void addAction(CLI::App& command, const char* name, const char* text, Action action)
    {
        CLI::App& subcommand = *command.add_subcommand(name, text);
        Names::addName(subcommand, mName, mIsLiteral);
        subcommand.callback([this, action] { mAction = action; });
    }

    void show(const Settings& settings, Device& device) const
    {
        Output output(settings);
        const uint64_t elapsed =
            device.ask([&](StatusManager& manager) { return manager.getTimerElapsed(mName); });
        if (!settings.isJson())
            return output.number({}, inUnits(elapsed));
        Json::Value object(Json::objectValue);
        object["elapsed"] = static_cast<Json::UInt64>(elapsed);
        object["lastStarted"] = static_cast<Json::UInt64>(
            device.ask([&](StatusManager& manager) { return manager.getTimerLastStarted(mName); }));
        output.json(object);
    }

    void list(const Settings& settings) const
    {
        const Inquiry::Timers timers = Inquiry::timers(settings);
        if (settings.isJson())
            return printObject(settings, BrokerProtocol::Key::timers, MeasuresJson::of(timers));
        for (const auto& [name, timer] : timers)
            printPair(settings, name, inUnits(timer.elapsed));
    }

    uint64_t inUnits(uint64_t microseconds) const
    {
        constexpr uint64_t second = 1000000;
        return mInSeconds ? microseconds / second : microseconds;
    }

    std::string mName;
    bool mIsLiteral = false;
    Action mAction = nullptr; // null: show or list
    bool mIsList = false;
    bool mInSeconds = false;
};

// ------------------------------------------------------------------------------------------------- counter

class Counters : public IVerb
{
public:
    explicit Counters(CLI::App& app)
    {
        CLI::App& command =
            Verbs::describe(app, "counter", "Count with, read and set the device's named counters",
                            "statusctl counter add restarts\n"
                            "statusctl counter get restarts\n"
                            "statusctl counter set restarts 0\n"
                            "statusctl counter list");
        command.require_subcommand(1);
        add(command, "get", "Print its value", &Counters::get);
        add(command, "add", "Count up and print the value after", &Counters::count)
            .add_option("N", mNumber,
                        "Count N times, at most 1000000, each with a request, so that no count of another "
                        "client is lost")
            ->check(Verbs::wholeNumber(1, 1000000));
        add(command, "set", "Set the counter", &Counters::set)
            .add_option("N", mNumber, "The value, at most 4294967295")
            ->required()
            ->check(Verbs::wholeNumber(0, UINT32_MAX));
        CLI::App& list = *command.add_subcommand("list", "Print all counters, as NAME=VALUE");
        command.callback(
            [this, &list]
            {
                if (!list.parsed())
                    Names::checkExact({mName}, mIsLiteral);
            });
    }

    ExitCode run(const Settings& settings) override
    {
        if (mAction == nullptr)
        {
            list(settings);
            return ExitCode::Done;
        }
        Device device(settings);
        if (const std::optional<uint32_t> value = (this->*mAction)(device))
            Output(settings).number("value", *value);
        return ExitCode::Done;
    }

private:
    using Action = std::optional<uint32_t> (Counters::*)(Device&) const;

    CLI::App& add(CLI::App& command, const char* name, const char* text, Action action)
    {
        CLI::App& subcommand = *command.add_subcommand(name, text);
        Names::addName(subcommand, mName, mIsLiteral);
        subcommand.callback([this, action] { mAction = action; });
        return subcommand;
    }

    std::optional<uint32_t> get(Device& device) const
    {
        return device.ask([this](StatusManager& manager) { return manager.getCounterValue(mName); });
    }

    std::optional<uint32_t> count(Device& device) const
    {
        uint32_t value = 0;
        for (uint32_t times = 0; times < mNumber; ++times)
            value = device.ask([this](StatusManager& manager) { return manager.incrementCounter(mName); });
        return value;
    }

    std::optional<uint32_t> set(Device& device) const
    {
        device.setCounter(mName, mNumber);
        device.confirm();
        return std::nullopt;
    }

    static void list(const Settings& settings)
    {
        const Inquiry::Counters counters = Inquiry::counters(settings);
        if (settings.isJson())
            return printObject(settings, BrokerProtocol::Key::counters, MeasuresJson::of(counters));
        for (const auto& [name, value] : counters)
            printPair(settings, name, value);
    }

    std::string mName;
    bool mIsLiteral = false;
    uint32_t mNumber = 1;
    Action mAction = nullptr; // null: list
};

} // namespace

std::unique_ptr<IVerb> Verbs::addTimer(CLI::App& app)
{
    return std::make_unique<Timers>(app);
}

std::unique_ptr<IVerb> Verbs::addCounter(CLI::App& app)
{
    return std::make_unique<Counters>(app);
}
