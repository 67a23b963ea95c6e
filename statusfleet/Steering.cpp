// desired and cmd: they change something on a device.

#include <algorithm>
#include <chrono>
#include <random>

#include "mqttlink/ServerName.h"
#include "mqttlink/Topics.h"
#include "statusctl/text/Duration.h"
#include "statusctl/text/Json.h"
#include "statusctl/text/Output.h"
#include "statusfleet/Desk.h"
#include "statusfleet/Verb.h"

namespace
{

void requireName(const std::string& device)
{
    if (device.find_first_of("*?") != std::string::npos)
        throw Failure(ExitCode::WrongUsage, "\"" + device + "\" is a glob; name one device");
}

std::vector<std::string> hostOf(const Call& call, const std::string& device)
{
    return {ServerName::pick(call.options.server, device)};
}

int64_t milliseconds()
{
    using namespace std::chrono;
    return duration_cast<std::chrono::milliseconds>(system_clock::now().time_since_epoch()).count();
}

// ------------------------------------------------------------------------------------------------- desired

class Desired : public IVerb
{
public:
    explicit Desired(CLI::App& app)
    {
        CLI::App& command = *app.add_subcommand(
            "desired",
            "Set a value on a device, now or when it is online; its configuration must allow the key");
        command.add_option("DEVICE", mDevice, "The device")->required();
        command.add_option("KEY", mKey, "The key")->required();
        command.add_option("VALUE", mValue, "The value; an empty one resets the key")->required();
        command.add_flag("--wait", mIsWaiting, "Wait until the device reports that it has the value");
    }

    ExitCode run(const Call& call) override
    {
        requireName(mDevice);
        const Topics topics(call.options.prefix, mDevice);
        const std::string desired = topics.desired(Topics::encode(mKey));
        const std::string reported = topics.reported(mKey);
        Desk desk(call.options, hostOf(call, mDevice));
        const auto take = [&](const ReceivedMessage& message) { takeMessage(message, reported); };
        desk.begin({desired, reported}, take, call.deadline);
        // Above all versions before, and hardly that of another desk at the same time.
        mVersion = std::max(mHighest + 1, milliseconds());
        mReport.reset();
        Json::Value wish(Json::objectValue);
        wish["version"] = static_cast<Json::Int64>(mVersion);
        wish["value"] = mValue;
        desk.publish({desired, JsonText::write(wish, Settings::Json::Short)}, take, call.deadline);
        if (mIsWaiting)
            waitForReport(call, desk, take);
        Output output(call.settings);
        if (call.settings.isJson())
            output.json(result());
        return ExitCode::Done;
    }

private:
    void takeMessage(const ReceivedMessage& message, const std::string& reported)
    {
        const std::optional<Json::Value> document = JsonText::readObject(message.payload);
        if (!document || !(*document)["version"].isInt64())
            return;
        const int64_t version = (*document)["version"].asInt64();
        mHighest = std::max(mHighest, version);
        if (message.topic == reported && version >= mVersion)
            mReport = *document;
    }

    void waitForReport(const Call& call, Desk& desk, const Desk::Take& take)
    {
        if (!desk.follow(
                take, [this] { return mReport.has_value(); }, call.deadline))
            throw Failure(ExitCode::TimedOut,
                          "timed out: the device has not reported the value. It is kept for it");
        const Json::Value& error = (*mReport)["error"];
        if (error.isString())
            throw Failure(ExitCode::Failed, "the device refuses the value: " + error.asString());
    }

    Json::Value result() const
    {
        Json::Value object(Json::objectValue);
        JsonText::set(object, "device", mDevice);
        JsonText::set(object, "key", mKey);
        object["version"] = static_cast<Json::Int64>(mVersion);
        object["applied"] = mReport.has_value();
        return object;
    }

    std::string mDevice;
    std::string mKey;
    std::string mValue;
    bool mIsWaiting = false;
    int64_t mHighest = 0;
    int64_t mVersion = 0;
    std::optional<Json::Value> mReport;
};

// ----------------------------------------------------------------------------------------------------- cmd

class Command : public IVerb
{
public:
    explicit Command(CLI::App& app)
    {
        CLI::App& command = *app.add_subcommand(
            "cmd", "Cause an event on a device that is online, and print what has become of it");
        command.add_option("DEVICE", mDevice, "The device")->required();
        command.add_option("NAME", mName, "The event")->required();
        command.add_option("VALUE", mValue, "The event's value");
    }

    ExitCode run(const Call& call) override
    {
        requireName(mDevice);
        if (!call.options.isVersion5)
            throw Failure(ExitCode::WrongUsage, "commands need mqtt = 5, which lets them expire");
        const Topics topics(call.options.prefix, mDevice);
        const std::string topic = topics.command(Topics::encode(mName) + "/" + newId());
        Desk desk(call.options, hostOf(call, mDevice));
        std::optional<Json::Value> result;
        const auto take = [&](const ReceivedMessage& message)
        {
            if (message.topic == topic + "/result")
                result = JsonText::readObject(message.payload);
        };
        desk.begin({topic + "/result"}, take, call.deadline);
        const auto left = std::chrono::ceil<std::chrono::seconds>(call.deadline - Clock::now());
        MqttLink::Message message{topic, mValue, false};
        message.expiry = static_cast<uint32_t>(std::max<int64_t>(left.count(), 1));
        desk.publish(message, take, call.deadline);
        if (!desk.follow(
                take, [&] { return result.has_value(); }, call.deadline))
            throw Failure(ExitCode::TimedOut, "timed out: the device has not answered");
        if ((*result)["result"] != "posted")
            throw Failure(ExitCode::Failed,
                          "the device refuses the command: " + (*result)["reason"].asString());
        Output output(call.settings);
        if (call.settings.isJson())
            output.json(*result);
        else if (!call.settings.quiet)
            output.line("posted");
        return ExitCode::Done;
    }

private:
    // The device ignores an id that it has seen.
    static std::string newId()
    {
        static std::random_device device;
        constexpr uint64_t many = 0xffffffffffff;
        return std::to_string(std::uniform_int_distribution<uint64_t>(0, many)(device));
    }

    std::string mDevice;
    std::string mName;
    std::string mValue;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addDesired(CLI::App& app)
{
    return std::make_unique<Desired>(app);
}

std::unique_ptr<IVerb> Verbs::addCommand(CLI::App& app)
{
    return std::make_unique<Command>(app);
}
