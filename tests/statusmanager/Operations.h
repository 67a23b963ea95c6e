#ifndef TESTS_STATUSMANAGER_OPERATIONS_H
#define TESTS_STATUSMANAGER_OPERATIONS_H

#include <functional>
#include <ostream>
#include <vector>

#include "statusmanager/StatusManager.h"

/// An operation of the manager, called with some arguments.
struct Operation
{
    const char* name; // of the version in which the work is done
    std::function<void(StatusManager&)> call;
    bool isTracedByItsCaller = false; // as well, before the work is done
};

inline std::ostream& operator<<(std::ostream& stream, const Operation& operation)
{
    return stream << operation.name;
}

/// Operations that return at once when another thread than the manager's calls them.
inline const std::vector<Operation> queuedOperations{
    {"startTimer", [](StatusManager& m) { m.startTimer("t"); }},
    {"stopTimer", [](StatusManager& m) { m.stopTimer("t"); }},
    {"resetTimer", [](StatusManager& m) { m.resetTimer("t"); }},
    {"restartTimer", [](StatusManager& m) { m.restartTimer("t"); }},
    {"setCounterValue", [](StatusManager& m) { m.setCounterValue("c", 1); }},
    {"registerListener", [](StatusManager& m) { m.registerListener(nullptr, nullptr); }},
    {"registerForStatus", [](StatusManager& m) { m.registerForStatus(nullptr, StatusKeys{"k"}); }},
    {"registerForStatus", [](StatusManager& m) { m.registerForStatus(nullptr, "single"); }},
    {"postStatus", [](StatusManager& m) { m.postStatus(StatusMap()); }},
    {"postStatus", [](StatusManager& m) { m.postStatus("single", "v"); }},
    {"resetStatus", [](StatusManager& m) { m.resetStatus(StatusKeys()); }},
    {"resetStatus", [](StatusManager& m) { m.resetStatus("single"); }},
    {"registerForEvent", [](StatusManager& m) { m.registerForEvent(nullptr, EventKeys{"e"}); }},
    {"registerForEvent", [](StatusManager& m) { m.registerForEvent(nullptr, "single"); }},
};

/// Operations that wait.
inline const std::vector<Operation> waitingOperations{
    {"updateSystemTime", [](StatusManager& m) { m.updateSystemTime(1); }},
    {"getClientInfo", [](StatusManager& m) { m.getClientInfo(); }},
    {"getClientInfoValue", [](StatusManager& m) { m.getClientInfoValue("k"); }},
    {"getClientInfoValues", [](StatusManager& m) { m.getClientInfoValues({"k"}); }},
    {"getTimerElapsed", [](StatusManager& m) { m.getTimerElapsed("t"); }},
    {"getTimerElapsedSeconds", [](StatusManager& m) { m.getTimerElapsedSeconds("t"); }},
    {"getTimerLastStarted", [](StatusManager& m) { m.getTimerLastStarted("t"); }},
    {"getCounterValue", [](StatusManager& m) { m.getCounterValue("c"); }},
    {"incrementCounter", [](StatusManager& m) { m.incrementCounter("c"); }},
    {"unregisterForStatus", [](StatusManager& m) { m.unregisterForStatus(nullptr, StatusKeys{"k"}); }},
    {"unregisterForStatus", [](StatusManager& m) { m.unregisterForStatus(nullptr, "single"); }},
    {"unregisterForEvent", [](StatusManager& m) { m.unregisterForEvent(nullptr, EventKeys{"e"}); }},
    {"unregisterForEvent", [](StatusManager& m) { m.unregisterForEvent(nullptr, "single"); }, true},
    {"sync", [](StatusManager& m) { m.sync(-1); }},
};

#endif
