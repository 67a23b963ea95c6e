#ifndef BRIDGE_DOWNLINK_H
#define BRIDGE_DOWNLINK_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "bridge/BridgeFile.h"
#include "bridge/BridgeOptions.h"
#include "bridge/BrokerPoster.h"
#include "daemon/Clock.h"
#include "mqttlink/MqttLink.h"
#include "mqttlink/Topics.h"

/// What the server wants of the device: desired values, and commands. Decides what is posted, and answers.
/// Nothing in a message is trusted.
///
/// A desired value has a version. It is posted if its key is allowed and its version is above the one that
/// was applied last, which the file keeps. A command becomes an event, once.
class Downlink
{
public:
    using Values = std::map<std::string, std::string>;

    using Batch = BrokerPoster::Batch;

    /// @param options must outlive this object
    Downlink(const BridgeOptions& options, BridgeFile& file);

    /// The topics to subscribe to.
    std::vector<std::string> subscriptions(const Topics& topics) const;

    /// Takes a message of the server. Ignores topics of others.
    void take(const Topics& topics, const MqttLink::Received& message, TimePoint now);

    /// Whether something waits to be posted.
    bool hasWork() const { return !mDesired.empty() || !mCommands.empty(); }

    /// What is to be posted now, without commands that have expired. If it is not empty, call posted() before
    /// the next call.
    Batch nextBatch(TimePoint now);

    /// The broker has taken the batch.
    /// @param values the present values of the batch's keys; a value that the broker refused differs
    void posted(const Topics& topics, const Values& values);

    /// The next answer to publish; nothing if there is none.
    std::optional<MqttLink::Message> nextAnswer();
    bool hasAnswer() const { return !mAnswers.empty(); }

    /// Commands that were refused.
    uint64_t refused() const { return mRefused; }

private:
    struct Desired
    {
        int64_t version = 0;
        std::string value;
    };

    struct Command
    {
        std::string topic;
        std::string name;
        std::string value;
        TimePoint expiry;
    };

    void load();
    void takeDesired(const Topics& topics, const std::string& key, const std::string& payload);
    void takeCommand(const std::string& name, const MqttLink::Received& message, TimePoint now);
    void report(const Topics& topics, const std::string& key, int64_t version, const std::string& member);
    void refuse(const std::string& topic, const char* reason);
    void answer(MqttLink::Message message);
    bool isNew(const std::string& topic);
    void keepVersion(const std::string& key, int64_t version);

    const BridgeOptions& mOptions;
    BridgeFile& mFile;
    std::map<std::string, int64_t> mApplied; // versions
    std::map<std::string, Desired> mDesired; // to be posted
    std::map<std::string, Desired> mUnderWay;
    std::deque<Command> mCommands;
    std::deque<Command> mCommandsUnderWay;
    std::deque<std::string> mSeen; // topics of the last commands
    std::deque<MqttLink::Message> mAnswers;
    uint64_t mRefused = 0;
};

#endif
