// Lines of posts and requests, one after the other, against what the broker holds, with small limits.

#include <sstream>

#include "broker/DeviceState.h"
#include "common/Logging.h"
#include "fuzz/Fuzz.h"

namespace
{

Limits smallLimits()
{
    Limits limits;
    limits.keys = 4;
    limits.keyBytes = 8;
    limits.valueBytes = 16;
    limits.storedBytes = 40;
    limits.timers = 2;
    limits.counters = 2;
    return limits;
}

void silence(const ov_log_record*, void*) {}

void checkNotification(const std::string& text)
{
    const BrokerProtocol::Notification notification = BrokerProtocol::readNotification(text);
    using Kind = BrokerProtocol::Notification::Kind;
    Fuzz::require(notification.kind == Kind::StatusUpdate || notification.kind == Kind::EventUpdate,
                  "clients can read what is published");
    Fuzz::require(!notification.members.empty(), "something is published");
}

void checkLimits(const DeviceState& state, const Limits& limits)
{
    Fuzz::require(state.keys() <= limits.keys, "keys are limited");
    Fuzz::require(state.timers() <= limits.timers, "timers are limited");
    Fuzz::require(state.counters() <= limits.counters, "counters are limited");
    Fuzz::require(state.storedBytes() <= limits.storedBytes, "bytes are limited");
    std::size_t bytes = 0;
    for (const auto& [key, value] : state.changedSince(0))
        bytes += key.size() + value.size();
    Fuzz::require(bytes == state.storedBytes(), "bytes are counted right");
}

void process(DeviceState& state, const std::string& line)
{
    if (const auto post = BrokerProtocol::readPost(line))
    {
        if (post->key == BrokerProtocol::Key::updateSystemTime)
            return; // not the state's business
        if (const auto notification = state.apply(*post))
            checkNotification(*notification);
    }
    if (const auto request = BrokerProtocol::readRequest(line))
    {
        const auto answer = state.answer(*request);
        Fuzz::require(!answer || !answer->empty(), "an answer is not empty");
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static const Limits limits = smallLimits();
    ov_log_set_sink(silence, nullptr);
    Refusals refusals;
    DeviceState state(limits, refusals);
    state.restore({});
    std::istringstream lines(Fuzz::textOf(data, size));
    for (std::string line; std::getline(lines, line);)
    {
        process(state, line);
        checkLimits(state, limits);
    }
    Fuzz::require(state.takeChanges().values == state.changedSince(0), "all changes are noted");
    return 0;
}
