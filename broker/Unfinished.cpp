#include "broker/Unfinished.h"

#include <algorithm>

#include "broker/Connection.h"

namespace
{

// What libzmq reads at a time, and the handshake.
constexpr uint64_t readAhead = uint64_t{16} * 1024;

} // namespace

Unfinished::Verdict Unfinished::look(int descriptor, std::size_t limit)
{
    mMessages = 0;
    const uint64_t inside = mReadBefore - std::min(mReadBefore, mReceived);
    mReadBefore = Connection::bytesRead(descriptor).value_or(0);
    if (inside > limit + readAhead)
        return Verdict::Endless;
    const uint64_t now = mReadBefore - std::min(mReadBefore, mReceived);
    // Handshakes and heartbeats are no messages; without this, they would add up over the days.
    constexpr uint64_t small = 256;
    if (now == inside && now < small)
        mReceived += now;
    return std::max(inside, now) > readAhead ? Verdict::Long : Verdict::Fine;
}

Unfinished::Verdict Unfinished::glance(int descriptor, std::size_t limit) const
{
    const uint64_t read = Connection::bytesRead(descriptor).value_or(0);
    return read - std::min(read, mReceived) > limit + readAhead ? Verdict::Endless : Verdict::Fine;
}

void Unfinished::cutOff(int descriptor, const std::string& why, std::size_t limit, Refusals& refusals)
{
    refusals.report(Refusal::MessageBytes,
                    why + " was cut off, the limit is " + std::to_string(limit) + " bytes");
    Connection::cut(descriptor);
}
