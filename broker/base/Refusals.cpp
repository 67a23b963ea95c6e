#include "broker/base/Refusals.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "common/Logging.h"
#include "protocol/Words.h"

OV_LOG_CONTROL_WORDS;

void Refusals::report(Refusal kind, const char* format, ...)
{
    Kind& of = mKinds[static_cast<std::size_t>(kind)];
    ++of.count;
    if (mSource != nullptr)
        ++mSource->refusals;
    if (!isToBeLogged(of))
        return;
    std::array<char, 512> text{};
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    Held line{mSource, text.data(), std::exchange(of.silent, 0), mNow()};
    if (mSource == nullptr || !mDescribe)
        return log(line, "");
    if (const std::optional<std::string> name = mDescribe(*mSource))
        return log(line, *name);
    mHeld.push_back(std::move(line));
}

Refusals::~Refusals()
{
    for (const Held& line : mHeld)
        log(line, "");
}

void Refusals::tell(const Refused& source, const std::string& name)
{
    const auto isItsOwn = [&](const Held& line) { return line.source == &source; };
    for (const Held& line : mHeld)
    {
        if (isItsOwn(line))
            log(line, name);
    }
    mHeld.erase(std::remove_if(mHeld.begin(), mHeld.end(), isItsOwn), mHeld.end());
}

void Refusals::log(const Held& line, const std::string& name)
{
    const std::string from = name.empty() ? "" : " [" + name + ']';
    if (line.silent == 0)
        OV_LOG(2, "%s%s", line.text.c_str(), from.c_str());
    else
        OV_LOG(2, "%s%s (and %llu before it)", line.text.c_str(), from.c_str(),
               static_cast<unsigned long long>(line.silent));
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
    case Refusal::Denied:
        return BrokerProtocol::Number::policyDenied;
    case Refusal::Audited:
        return BrokerProtocol::Number::policyAudited;
    case Refusal::AuditedView:
        return "policy.auditedViews";
    case Refusal::UnknownOwner:
        return BrokerProtocol::Number::policyUnknownOwners;
    case Refusal::OwnerGone:
        return BrokerProtocol::Number::policyOwnersGone;
    case Refusal::Quota:
        return BrokerProtocol::Number::policyQuota;
    }
    return "";
}
