#include "broker/Unfinished.h"

#include <algorithm>

#include "broker/Connection.h"

Unfinished::Verdict Unfinished::look(int descriptor, std::size_t limit)
{
    // What libzmq reads at a time, and the handshake.
    constexpr uint64_t readAhead = uint64_t{16} * 1024;
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

void Unfinished::cutOff(int descriptor, const std::string& what, std::size_t limit, Refusals& refusals)
{
    refusals.report(Refusal::MessageBytes, "A " + what + " that does not end was cut off, the limit is " +
                                               std::to_string(limit) + " bytes");
    Connection::cut(descriptor);
}
