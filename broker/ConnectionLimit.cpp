#include "broker/ConnectionLimit.h"

#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

void ConnectionLimit::added(std::size_t inUse, TimePoint now)
{
    const bool isScarce = inUse * 10 >= mLimit * 9;
    mHasWarned = mHasWarned && inUse * 10 >= mLimit * 8;
    if (!isScarce || mHasWarned || now < mNextWarning)
        return;
    OV_LOG(2, "%zu of %zu connections to the %s port are in use", inUse, mLimit, mName);
    mHasWarned = true;
    mNextWarning = now + Refusals::window;
}

void ConnectionLimit::full()
{
    mRefusals.report(Refusal::Connections,
                     "All %zu connections to the %s port are in use: a new one replaces one that has not "
                     "shaken hands, or is refused",
                     mLimit, mName);
}
