#ifndef BROKER_PORTENVIRONMENT_H
#define BROKER_PORTENVIRONMENT_H

#include "broker/Guard.h"
#include "broker/MemoryBudget.h"
#include "broker/base/Limits.h"
#include "broker/base/Refusals.h"
#include "broker/peer/Identities.h"
#include "broker/wire/Poller.h"

/// The objects that the three ports share. They must outlive the ports.
struct PortEnvironment
{
    Poller& poller;
    Identities& identities;
    MemoryBudget& budget;
    const Limits& limits;
    Refusals& refusals;
    Guard& guard;
};

#endif
