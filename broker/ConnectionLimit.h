#ifndef BROKER_CONNECTIONLIMIT_H
#define BROKER_CONNECTIONLIMIT_H

#include <cstddef>
#include <string>

#include "broker/base/Refusals.h"

/// Warns the operator when the connections of a port become scarce, and when none are left.
class ConnectionLimit
{
public:
    /// @param name of the port
    /// @param limit may change; the limit and the refusals must outlive this object
    ConnectionLimit(const char* name, const std::size_t& limit, Refusals& refusals)
        : mName(name), mLimit(limit), mRefusals(refusals)
    {
    }

    /// A connection was added. Warns once at 90 %, and re-arms below 80 %; rate-limited like every line that
    /// peers can trigger.
    void added(std::size_t inUse, TimePoint now);

    /// There is no room for a connection.
    void full();

    std::size_t most() const { return mLimit; }

private:
    const char* mName;
    const std::size_t& mLimit;
    Refusals& mRefusals;
    bool mHasWarned = false;
    TimePoint mNextWarning{};
};

#endif
