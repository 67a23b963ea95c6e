#ifndef BROKER_CONNECTIONLIMIT_H
#define BROKER_CONNECTIONLIMIT_H

#include <cstddef>
#include <string>

#include "broker/base/Refusals.h"

/// Tells the operator when the connections of a port get scarce, and when there are none left.
class ConnectionLimit
{
public:
    /// @param name of the port
    /// @param limit may change; both must outlive it
    ConnectionLimit(const char* name, const std::size_t& limit, Refusals& refusals)
        : mName(name), mLimit(limit), mRefusals(refusals)
    {
    }

    /// A connection more: so many are in use now. Warns once at 90 %, and again after they were below 80 %;
    /// but not more often than peers can make other lines be logged.
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
