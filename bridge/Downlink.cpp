#include "bridge/Downlink.h"

#include <algorithm>
#include <json/json.h>
#include <memory>
#include <utility>

#include "common/Logging.h"
#include "protocol/ClientDocuments.h"

OV_LOG_CONTROL_WORDS;

namespace
{

constexpr std::size_t mostKeys = 1000;    // with a desired value
constexpr std::size_t mostCommands = 100; // that wait
constexpr std::size_t mostSeen = 500;
constexpr std::size_t mostAnswers = 2000;
constexpr std::size_t longestPayload = std::size_t{128} * 1024;
constexpr int64_t highestVersion = int64_t{1} << 53U; // as far as all JSON libraries count

struct Wish
{
    int64_t version;
    std::string value;
};

// {"version":7,"value":"on"}
std::optional<Wish> readWish(const std::string& payload)
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = 4;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try
    {
        Json::Value wish;
        if (!reader->parse(payload.data(), payload.data() + payload.size(), &wish, nullptr) ||
            !wish.isObject())
            return std::nullopt;
        const Json::Value& version = wish["version"];
        const Json::Value& value = wish["value"];
        if (!version.isInt64() || version.asInt64() < 1 || version.asInt64() > highestVersion ||
            !value.isString())
            return std::nullopt;
        return Wish{version.asInt64(), value.asString()};
    }
    catch (const Json::Exception&) // nested too deeply
    {
        return std::nullopt;
    }
}

std::string textMember(const char* name, const std::string& text)
{
    const std::string document = BrokerProtocol::writeText(name, text);
    return document.substr(1, document.size() - 2);
}

} // namespace

Downlink::Downlink(const BridgeOptions& options, BridgeFile& file) : mOptions(options), mFile(file)
{
    mFile.read(
        [this](sqlite3* database)
        {
            Sql rows(database, "SELECT key, version FROM applied");
            while (rows.step() && mApplied.size() < mostKeys)
                mApplied.emplace(rows.text(0), rows.number(1));
        });
}

std::vector<std::string> Downlink::subscriptions(const Topics& topics) const
{
    std::vector<std::string> all;
    if (!mOptions.desiredKeys.empty())
        all.push_back(topics.desired("+"));
    if (!mOptions.commands.empty())
        all.push_back(topics.command("+/+"));
    return all;
}

void Downlink::take(const Topics& topics, const MqttLink::Received& message, TimePoint now)
{
    if (const std::optional<std::string> key = topics.desiredKeyOf(message.topic))
        takeDesired(topics, *key, message.payload);
    else if (const std::optional<std::string> name = topics.commandOf(message.topic))
        takeCommand(*name, message, now);
}

// ---------------------------------------------------------------------------------------------------- values

// The server repeats all desired values at each connection. A version that was applied is reported again, as
// the first report may have been lost.
void Downlink::takeDesired(const Topics& topics, const std::string& key, const std::string& payload)
{
    if (payload.empty() || !NameRules::matchesAny(mOptions.desiredKeys, key))
        return;
    const std::optional<Wish> wish = payload.size() > longestPayload ? std::nullopt : readWish(payload);
    if (!wish)
        return report(topics, key, 0,
                      textMember("error", "not of the form {\"version\":1,\"value\":\"on\"}"));
    const auto applied = mApplied.find(key);
    const int64_t before = applied == mApplied.end() ? 0 : applied->second;
    if (wish->version == before)
        return report(topics, key, before, R"("repeated":true)");
    if (wish->version < before || mDesired[key].version >= wish->version)
        return;
    if (applied == mApplied.end() && mApplied.size() + mDesired.size() > mostKeys)
    {
        mDesired.erase(key);
        return report(topics, key, wish->version, textMember("error", "too many keys"));
    }
    mDesired[key] = {wish->version, wish->value};
}

void Downlink::report(const Topics& topics, const std::string& key, int64_t version,
                      const std::string& member)
{
    answer({topics.reported(key), "{\"version\":" + std::to_string(version) + "," + member + "}"});
}

// -------------------------------------------------------------------------------------------------- commands

void Downlink::takeCommand(const std::string& name, const MqttLink::Received& message, TimePoint now)
{
    if (!NameRules::matchesAny(mOptions.commands, name))
        return refuse(message.topic, "not allowed");
    if (!isNew(message.topic))
        return;
    if (message.isRetained)
        return refuse(message.topic, "retained");
    if (!message.expiry)
        return refuse(message.topic, "without expiry");
    if (message.payload.size() > longestPayload || mCommands.size() >= mostCommands)
        return refuse(message.topic, "too much");
    mCommands.push_back({message.topic, name, message.payload, now + std::chrono::seconds(*message.expiry)});
}

// The server may send a message twice, and sends retained ones at each connection.
bool Downlink::isNew(const std::string& topic)
{
    if (std::find(mSeen.begin(), mSeen.end(), topic) != mSeen.end())
        return false;
    mSeen.push_back(topic);
    if (mSeen.size() > mostSeen)
        mSeen.pop_front();
    return true;
}

void Downlink::refuse(const std::string& topic, const char* reason)
{
    ++mRefused;
    OV_LOG(2, "Refused the command %.200s: %s", topic.c_str(), reason);
    answer({topic + "/result", "{\"result\":\"refused\"," + textMember("reason", reason) + "}", false});
}

// --------------------------------------------------------------------------------------------------- posting

Downlink::Batch Downlink::nextBatch(TimePoint now)
{
    Batch batch;
    mUnderWay = std::exchange(mDesired, {});
    for (const auto& [key, desired] : mUnderWay)
        batch.values.emplace(key, desired.value);
    for (Command& command : std::exchange(mCommands, {}))
    {
        if (command.expiry <= now)
        {
            refuse(command.topic, "expired");
            continue;
        }
        batch.events.emplace_back(command.name, command.value);
        mCommandsUnderWay.push_back(std::move(command));
    }
    return batch;
}

void Downlink::posted(const Topics& topics, const Values& values)
{
    for (const auto& [key, desired] : std::exchange(mUnderWay, {}))
    {
        const auto value = values.find(key);
        const std::string present = value == values.end() ? std::string() : value->second;
        const bool isApplied = present == desired.value;
        if (isApplied)
            keepVersion(key, desired.version);
        report(topics, key, desired.version,
               isApplied ? textMember("value", desired.value)
                         : textMember("error", "the broker has another value"));
    }
    for (const Command& command : std::exchange(mCommandsUnderWay, {}))
        answer({command.topic + "/result", R"({"result":"posted"})", false});
}

void Downlink::keepVersion(const std::string& key, int64_t version)
{
    mApplied[key] = version;
    mFile.write(
        [&](sqlite3* database)
        { Sql(database, "INSERT OR REPLACE INTO applied VALUES (?, ?)").bind(key).bind(version).step(); });
}

// ----------------------------------------------------------------------------------------------------
// answers

// A server that asks for more than it takes gets the latest answers.
void Downlink::answer(MqttLink::Message message)
{
    mAnswers.push_back(std::move(message));
    if (mAnswers.size() > mostAnswers)
        mAnswers.pop_front();
}

std::optional<MqttLink::Message> Downlink::nextAnswer()
{
    if (mAnswers.empty())
        return std::nullopt;
    std::optional<MqttLink::Message> message = std::move(mAnswers.front());
    mAnswers.pop_front();
    return message;
}
