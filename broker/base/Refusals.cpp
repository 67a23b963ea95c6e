#include "broker/base/Refusals.h"

#include <cstdarg>
#include <cstdio>

#include "common/Logging.h"
#include "protocol/Words.h"

OV_LOG_CONTROL_WORDS;

void Refusals::report(Refusal kind, const char* format, ...)
{
    Kind& of = mKinds[static_cast<std::size_t>(kind)];
    ++of.count;
    if (!isToBeLogged(of))
        return;
    std::array<char, 512> text{};
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    if (of.silent == 0)
        OV_LOG(2, "%s", text.data());
    else
        OV_LOG(2, "%s (and %llu before it)", text.data(), static_cast<unsigned long long>(of.silent));
    of.silent = 0;
}

bool Refusals::isToBeLogged(Kind& kind)
{
    const TimePoint now = mNow();
    if (now - kind.windowStart >= window)
    {
        kind.windowStart = now;
        kind.lines = 0;
    }
    const bool isRoom = kind.lines < linesPerWindow;
    if (isRoom)
        ++kind.lines;
    else
        ++kind.silent;
    return isRoom;
}

void Refusals::reportLong(const char* message, bool isEndless, std::size_t limit)
{
    report(Refusal::MessageBytes, "%s of more than %zu bytes refused%s", message, limit,
           isEndless ? ", its connection is closed because it does not end" : "");
}

const char* Refusals::name(Refusal kind)
{
    switch (kind)
    {
    case Refusal::MalformedPost:
        return BrokerProtocol::Number::malformedPosts;
    case Refusal::MalformedRequest:
        return BrokerProtocol::Number::malformedRequests;
    case Refusal::SystemTime:
        return BrokerProtocol::Number::systemTimeRefused;
    case Refusal::Keys:
        return "limit.keys";
    case Refusal::KeyBytes:
        return "limit.keyBytes";
    case Refusal::ValueBytes:
        return "limit.valueBytes";
    case Refusal::StoredBytes:
        return "limit.storedBytes";
    case Refusal::MessageBytes:
        return "limit.messageBytes";
    case Refusal::Timers:
        return "limit.timers";
    case Refusal::Counters:
        return "limit.counters";
    case Refusal::Subscriptions:
        return "limit.subscriptions";
    case Refusal::Connections:
        return "limit.connections";
    case Refusal::Memory:
        return "limit.memory";
    }
    return "";
}
