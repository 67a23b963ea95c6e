// Fuzzes what the server wants of the device: the first line is the topic below the device's, the rest the
// message.

#include "bridge/Downlink.h"
#include "fuzz/Fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text = Fuzz::textOf(data, size);
    const std::size_t line = text.find('\n');
    const std::string level = text.substr(0, line);
    const std::string payload = line == std::string::npos ? "" : text.substr(line + 1);

    BridgeOptions options;
    options.desiredKeys.emplace_back("*");
    options.commands.emplace_back("*");
    BridgeFile file("");
    const Topics topics("fleet", "truck");
    Downlink down(options, file);
    const TimePoint now{};
    down.take(topics, {"fleet/truck/" + level, payload, false, 1}, now);
    const Downlink::Batch batch = down.nextBatch(now);
    Fuzz::require(batch.values.size() + batch.events.size() <= 1, "a message wants one thing");
    down.posted(topics, batch.values);
    Fuzz::require(batch.isEmpty() || down.hasAnswer(), "what is posted is answered");
    for (const auto& [key, value] : batch.values)
        Fuzz::require(topics.desired(Topics::encode(key)) == "fleet/truck/" + level,
                      "the name is the topic's");
    while (down.nextAnswer())
    {
    }
    return 0;
}
