#include "broker/Refusals.h"

#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

void Refusals::report(Refusal kind, const std::string& what, TimePoint now)
{
    Kind& of = mKinds[static_cast<std::size_t>(kind)];
    ++of.count;
    if (now - of.windowStart >= window)
    {
        of.windowStart = now;
        of.lines = 0;
    }
    if (of.lines == linesPerWindow)
    {
        ++of.silent;
        return;
    }
    ++of.lines;
    if (of.silent == 0)
        OV_LOG(2, "%s", what.c_str());
    else
        OV_LOG(2, "%s (and %llu before it)", what.c_str(), static_cast<unsigned long long>(of.silent));
    of.silent = 0;
}

const char* Refusals::name(Refusal kind)
{
    switch (kind)
    {
    case Refusal::MalformedPost:
        return "malformed.posts";
    case Refusal::MalformedRequest:
        return "malformed.requests";
    case Refusal::SystemTime:
        return "refused.systemTime";
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
    case Refusal::NotifyBytes:
        return "limit.notifyBytes";
    case Refusal::Connections:
        return "limit.connections";
    case Refusal::UnreadReplies:
        return "limit.unreadReplies";
    }
    return "";
}
