// devices, get, dump, watch and export: they change nothing.

#include <chrono>

#include "statusctl/text/Json.h"
#include "statusctl/text/Number.h"
#include "statusctl/text/Output.h"
#include "statusctl/text/Pattern.h"
#include "statusctl/text/Table.h"
#include "statusctl/text/Text.h"
#include "statusctl/text/Timestamp.h"
#include "statusfleet/Looking.h"

namespace
{

std::string timeText(int64_t seconds)
{
    return seconds <= 0 ? "-"
                        : Timestamp::utc(Timestamp::Time(std::chrono::seconds(seconds))).substr(0, 19) + "Z";
}

const char* conditionOf(const DeviceView& view)
{
    return !view.isKnown ? "unknown" : view.isOnline ? "online" : "offline";
}

// ------------------------------------------------------------------------------------------------- devices

class Devices : public IVerb
{
public:
    explicit Devices(CLI::App& app)
    {
        CLI::App& command = *app.add_subcommand("devices", "List the devices, and whether they are online");
        command.add_option("DEVICE", mDevice, "A name or a glob; all devices by default");
    }

    ExitCode run(const Call& call) override
    {
        const Looking looking(call, mDevice, {"online"});
        const auto devices = Pattern({mDevice}).matching(looking.view().devices());
        if (devices.empty() && !Looking::isGlob(mDevice))
            throw Failure(ExitCode::NotFound, "the server has nothing of the device \"" + mDevice + "\"");
        Output output(call.settings);
        if (call.settings.isJson())
            output.json(jsonOf(devices));
        else
            print(output, devices);
        return ExitCode::Done;
    }

private:
    using Views = std::map<std::string, DeviceView>;

    static Json::Value jsonOf(const Views& devices)
    {
        Json::Value root(Json::objectValue);
        root["devices"] = Json::Value(Json::arrayValue);
        for (const auto& [name, view] : devices)
        {
            Json::Value device(Json::objectValue);
            JsonText::set(device, "device", name);
            device["online"] = view.isOnline;
            if (view.since > 0)
                device["since"] = static_cast<Json::Int64>(view.since);
            if (view.seen > 0)
                device["seen"] = static_cast<Json::Int64>(view.seen);
            device["version"] = view.version;
            device["eventsDropped"] = static_cast<Json::Int64>(view.eventsDropped);
            root["devices"].append(device);
        }
        return root;
    }

    static void print(Output& output, const Views& devices)
    {
        Table table({{"DEVICE", Table::Alignment::Left},
                     {"CONDITION", Table::Alignment::Left},
                     {"SINCE", Table::Alignment::Left},
                     {"SEEN", Table::Alignment::Left},
                     {"VERSION", Table::Alignment::Left}});
        for (const auto& [name, view] : devices)
            table.add({Text::escapedName(name), conditionOf(view), timeText(view.since), timeText(view.seen),
                       view.version.empty() ? "-" : Text::escaped(view.version)});
        for (const std::string& line : table.lines())
            output.line(line);
    }

    std::string mDevice = "*";
};

// ---------------------------------------------------------------------------------------------------- values

class Get : public IVerb
{
public:
    explicit Get(CLI::App& app)
    {
        CLI::App& command = *app.add_subcommand("get", "Print values of a device");
        command.add_option("DEVICE", mDevice, "The device")->required();
        command
            .add_option(
                "KEY", mKeys,
                "Keys and globs. One key prints only its value; several keys or a glob print KEY=VALUE "
                "lines")
            ->required();
    }

    ExitCode run(const Call& call) override
    {
        const bool isAlone = mKeys.size() == 1 && !Looking::isGlob(mKeys.front());
        Looking looking(call, mDevice, Looking::values(isAlone ? mKeys.front() : "*"));
        const DeviceView::Values& all = looking.device(mDevice).values;
        const Pattern pattern(mKeys);
        for (const std::string& key : mKeys)
        {
            if (Pattern({key}).matching(all).empty())
                throw Failure(ExitCode::NotFound, "no value for \"" + key + "\"", {{"missing", {key}}});
        }
        Output output(call.settings);
        const DeviceView::Values values = pattern.matching(all);
        if (!isAlone || call.settings.isJson())
            output.values(values);
        else
            output.line(output.isTerminal() ? Text::harmless(values.begin()->second)
                                            : values.begin()->second);
        return ExitCode::Done;
    }

private:
    std::string mDevice;
    std::vector<std::string> mKeys;
};

class Dump : public IVerb
{
public:
    explicit Dump(CLI::App& app)
    {
        CLI::App& command = *app.add_subcommand("dump", "Print all values of a device");
        command.add_option("DEVICE", mDevice, "The device")->required();
    }

    ExitCode run(const Call& call) override
    {
        Looking looking(call, mDevice, Looking::values("*"));
        Output(call.settings).values(looking.device(mDevice).values);
        return ExitCode::Done;
    }

private:
    std::string mDevice;
};

class Watch : public IVerb
{
public:
    explicit Watch(CLI::App& app)
    {
        CLI::App& command = *app.add_subcommand(
            "watch", "Print changes of values, events, and devices that come and go, until a signal ends it");
        command.add_option("DEVICE", mDevice, "A name or a glob");
        command.add_option("KEY", mKey, "A key or event, or a glob of them");
        command.add_flag("--new", mIsNew, "Leave out the values at the beginning");
    }

    ExitCode run(const Call& call) override
    {
        const Pattern devices({mDevice});
        const Pattern keys({mKey});
        Output output(call.settings);
        bool isSilent = mIsNew;
        std::vector<std::string> levels = Looking::values(mKey);
        levels.push_back("event/+");
        Looking looking(call, mDevice, levels,
                        [&](const FleetView::Change& change)
                        {
                            const bool isKey = change.kind != FleetView::Change::Kind::Online;
                            if (!isSilent && devices.matches(change.device) &&
                                (!isKey || keys.matches(change.name)))
                                print(call, output, change);
                        });
        isSilent = false;
        looking.follow();
        return ExitCode::TimedOut;
    }

private:
    static const char* kindOf(const FleetView::Change& change)
    {
        using Kind = FleetView::Change::Kind;
        return change.kind == Kind::Value ? "value" : change.kind == Kind::Event ? "event" : "online";
    }

    static void print(const Call& call, Output& output, const FleetView::Change& change)
    {
        using Kind = FleetView::Change::Kind;
        if (call.settings.isJson())
        {
            Json::Value line(Json::objectValue);
            line["time"] = Timestamp::utc(Timestamp::now());
            line["kind"] = kindOf(change);
            JsonText::set(line, "device", change.device);
            if (change.kind == Kind::Online)
                line["online"] = change.value == "online";
            else
            {
                JsonText::set(line, "key", change.name);
                JsonText::set(line, "value", change.value);
            }
            return output.streamed(line);
        }
        const std::string time =
            Timestamp::local(Timestamp::now()) + " " + Text::escapedName(change.device) + " ";
        if (change.kind == Kind::Online)
            return output.line(time + "is " + change.value);
        output.line(time + (change.kind == Kind::Event ? "event " : "") + Text::escapedName(change.name) +
                    "=" + Text::escaped(change.value));
    }

    std::string mDevice = "*";
    std::string mKey = "*";
    bool mIsNew = false;
};

// --------------------------------------------------------------------------------------------------- export

class Export : public IVerb
{
public:
    explicit Export(CLI::App& app)
    {
        CLI::App& command =
            *app.add_subcommand("export", "Print the devices and their values for a monitoring system");
        command.add_flag("--prometheus", mIsPrometheus, "In the text format of Prometheus")->required();
        command.add_option("DEVICE", mDevice, "A name or a glob; all devices by default");
        command.add_option("KEY", mKey, "A key or a glob; all keys with a number by default");
    }

    ExitCode run(const Call& call) override
    {
        const Looking looking(call, mDevice, Looking::values(mKey));
        const auto devices = Pattern({mDevice}).matching(looking.view().devices());
        Output output(call.settings);
        output.line("# HELP statusfleet_online Whether the device is online.");
        output.line("# TYPE statusfleet_online gauge");
        for (const auto& [name, view] : devices)
            output.line("statusfleet_online{" + label("device", name) + "} " + (view.isOnline ? "1" : "0"));
        output.line("# HELP statusfleet_events_dropped Events that the device has dropped.");
        output.line("# TYPE statusfleet_events_dropped counter");
        for (const auto& [name, view] : devices)
            output.line("statusfleet_events_dropped{" + label("device", name) + "} " +
                        std::to_string(view.eventsDropped));
        output.line("# HELP statusfleet_value The value of a key, if it is a number.");
        output.line("# TYPE statusfleet_value gauge");
        for (const auto& [name, view] : devices)
            printValues(output, name, view);
        return ExitCode::Done;
    }

private:
    void printValues(Output& output, const std::string& name, const DeviceView& view) const
    {
        for (const auto& [key, value] : Pattern({mKey}).matching(view.values))
        {
            if (Number::isNumber(value))
                output.line("statusfleet_value{" + label("device", name) + "," + label("key", key) + "} " +
                            value);
        }
    }

    static std::string label(const char* name, const std::string& value)
    {
        std::string text = std::string(name) + "=\"";
        for (const char letter : Text::valid(value))
        {
            if (letter == '\n')
                text += "\\n";
            else if (letter == '"' || letter == '\\')
                (text += '\\') += letter;
            else
                text += letter;
        }
        return text + "\"";
    }

    bool mIsPrometheus = false;
    std::string mDevice = "*";
    std::string mKey = "*";
};

} // namespace

std::unique_ptr<IVerb> Verbs::addDevices(CLI::App& app)
{
    return std::make_unique<Devices>(app);
}

std::unique_ptr<IVerb> Verbs::addGet(CLI::App& app)
{
    return std::make_unique<Get>(app);
}

std::unique_ptr<IVerb> Verbs::addDump(CLI::App& app)
{
    return std::make_unique<Dump>(app);
}

std::unique_ptr<IVerb> Verbs::addWatch(CLI::App& app)
{
    return std::make_unique<Watch>(app);
}

std::unique_ptr<IVerb> Verbs::addExport(CLI::App& app)
{
    return std::make_unique<Export>(app);
}
