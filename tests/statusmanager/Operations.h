#ifndef TESTS_STATUSMANAGER_OPERATIONS_H
#define TESTS_STATUSMANAGER_OPERATIONS_H

#include <functional>
#include <optional>
#include <ostream>
#include <vector>

#include "tests/statusmanager/TestManager.h"
#include "tests/support/TraceLines.h"

/// An operation of the manager, called with some arguments.
struct Operation
{
    const char* name; // of the version that does the work
    std::function<void(TestManager&)> call;
    TraceLines lines;                            // everything that it logs with traces on
    std::optional<TraceLines> linesInPlace = {}; // its lines on the manager's thread, if they differ
};

inline std::ostream& operator<<(std::ostream& stream, const Operation& operation)
{
    return stream << operation.name;
}

namespace Traces
{

inline const TraceLines getTimer =
    scope("void StatusManager::getTimer(const string&, veskcommon::Stopwatch&)");
inline const TraceLines getCounter = scope("bool StatusManager::getCounter(const string&, Counter&)");
inline const TraceLines handleStatusUpdate = scope("void StatusManager::handleStatusUpdate(StatusMap)");
inline const TraceLines handleEventUpdate =
    scope("void StatusManager::handleEventUpdate(std::string, std::string)");
inline const TraceLines getTimerElapsed =
    scope("virtual uint64_t StatusManager::getTimerElapsed(const string&)", getTimer);
inline const TraceLines postStatus =
    scope("virtual void StatusManager::postStatus(StatusMap)", handleStatusUpdate);
inline const TraceLines resetStatus =
    scope("virtual void StatusManager::resetStatus(StatusKeys)", handleStatusUpdate);

/// The lines of an operation with subscriptions, for a listener that is not registered.
inline TraceLines refused(const std::string& function, const std::string& what)
{
    return scope(function,
                 message(2, function, "Cannot " + what + ", listener not registered with Status Manager"));
}

inline const TraceLines registerForStatus =
    refused("virtual void StatusManager::registerForStatus(IStatusUpdateListener*, StatusKeys)",
            "register for status value");
inline const TraceLines unregisterForStatus =
    refused("virtual void StatusManager::unregisterForStatus(IStatusUpdateListener*, const StatusKeys&)",
            "unregister for status value");
inline const TraceLines registerForEvent = refused(
    "virtual void StatusManager::registerForEvent(IStatusUpdateListener*, EventKeys)", "register for event");
inline const TraceLines unregisterForEvent =
    refused("virtual void StatusManager::unregisterForEvent(IStatusUpdateListener*, const EventKeys&)",
            "unregister for event");

inline const std::string unregisterListener =
    "virtual void StatusManager::unregisterListener(IStatusUpdateListener*)";
inline const TraceLines unregisterListenerHelper =
    scope("Orvane::EventDispatcher* StatusManager::unregisterListenerHelper(IStatusUpdateListener*)");

} // namespace Traces

/// Operations that return at once on any thread but the manager's.
inline const std::vector<Operation> queuedOperations{
    {"startTimer", [](TestManager& m) { m.startTimer("t"); },
     scope("virtual void StatusManager::startTimer(std::string)", Traces::getTimer)},
    {"stopTimer", [](TestManager& m) { m.stopTimer("t"); },
     scope("virtual void StatusManager::stopTimer(std::string)", Traces::getTimer)},
    {"resetTimer", [](TestManager& m) { m.resetTimer("t"); },
     scope("virtual void StatusManager::resetTimer(std::string)", Traces::getTimer)},
    {"restartTimer", [](TestManager& m) { m.restartTimer("t"); },
     scope("virtual void StatusManager::restartTimer(std::string)", Traces::getTimer)},
    {"setCounterValue", [](TestManager& m) { m.setCounterValue("c", 1); },
     scope("virtual void StatusManager::setCounterValue(std::string, uint32_t)", Traces::getCounter)},
    {"registerListener", [](TestManager& m) { m.registerListener(nullptr, nullptr); },
     scope("virtual void StatusManager::registerListener(IStatusUpdateListener*, Orvane::EventDispatcher*)")},
    {"registerForStatus", [](TestManager& m) { m.registerForStatus(nullptr, StatusKeys{"k"}); },
     Traces::registerForStatus},
    {"registerForStatus", [](TestManager& m) { m.registerForStatus(nullptr, "single"); },
     Traces::registerForStatus},
    {"postStatus", [](TestManager& m) { m.postStatus(StatusMap()); }, Traces::postStatus},
    {"postStatus", [](TestManager& m) { m.postStatus("single", "v"); },
     scope("virtual void StatusManager::postStatus(std::string, std::string)", Traces::postStatus)},
    {"resetStatus", [](TestManager& m) { m.resetStatus(StatusKeys()); }, Traces::resetStatus},
    {"resetStatus", [](TestManager& m) { m.resetStatus("single"); },
     scope("virtual void StatusManager::resetStatus(std::string)", Traces::resetStatus)},
    {"registerForEvent", [](TestManager& m) { m.registerForEvent(nullptr, EventKeys{"e"}); },
     Traces::registerForEvent},
    {"registerForEvent", [](TestManager& m) { m.registerForEvent(nullptr, "single"); },
     Traces::registerForEvent},
};

/// Operations that wait.
inline const std::vector<Operation> waitingOperations{
    {"updateSystemTime", [](TestManager& m) { m.updateSystemTime(1); },
     scope("virtual void StatusManager::updateSystemTime(uint32_t)")},
    {"getClientInfo", [](TestManager& m) { m.getClientInfo(); },
     scope("virtual StatusMap StatusManager::getClientInfo()")},
    {"getClientInfoValue", [](TestManager& m) { m.getClientInfoValue("k"); },
     scope("virtual std::string StatusManager::getClientInfoValue(const string&)")},
    {"getClientInfoValues", [](TestManager& m) { m.getClientInfoValues({"k"}); },
     scope("virtual StatusMap StatusManager::getClientInfoValues(const StatusKeys&)")},
    {"getTimerElapsed", [](TestManager& m) { m.getTimerElapsed("t"); }, Traces::getTimerElapsed},
    {"getTimerElapsedSeconds", [](TestManager& m) { m.getTimerElapsedSeconds("t"); },
     scope("virtual uint64_t StatusManager::getTimerElapsedSeconds(const string&)", Traces::getTimerElapsed)},
    {"getTimerLastStarted", [](TestManager& m) { m.getTimerLastStarted("t"); },
     scope("virtual uint64_t StatusManager::getTimerLastStarted(const string&)", Traces::getTimer)},
    {"getCounterValue", [](TestManager& m) { m.getCounterValue("c"); },
     scope("virtual uint32_t StatusManager::getCounterValue(const string&)", Traces::getCounter)},
    {"incrementCounter", [](TestManager& m) { m.incrementCounter("c"); },
     scope("virtual uint32_t StatusManager::incrementCounter(const string&)", Traces::getCounter)},
    {"unregisterForStatus", [](TestManager& m) { m.unregisterForStatus(nullptr, StatusKeys{"k"}); },
     Traces::unregisterForStatus},
    {"unregisterForStatus", [](TestManager& m) { m.unregisterForStatus(nullptr, "single"); },
     Traces::unregisterForStatus},
    {"unregisterForEvent", [](TestManager& m) { m.unregisterForEvent(nullptr, EventKeys{"e"}); },
     Traces::unregisterForEvent},
    {"unregisterForEvent", [](TestManager& m) { m.unregisterForEvent(nullptr, "single"); },
     // Only this form traces on its caller's thread.
     scope("virtual void StatusManager::unregisterForEvent(IStatusUpdateListener*, const string&)",
           Traces::unregisterForEvent, TraceLine::By::Caller)},
    {"sync", [](TestManager& m) { m.sync(-1); }, scope("virtual bool StatusManager::sync(int)")},
};

/// Operations that no class can override, or that do part of their work on the caller's thread.
inline const std::vector<Operation> otherOperations{
    {"unregisterListener", [](TestManager& m) { m.unregisterListener(nullptr); },
     scope(Traces::unregisterListener, Traces::unregisterListenerHelper, TraceLine::By::Caller),
     scope(Traces::unregisterListener,
           message(1, Traces::unregisterListener,
                   "StatusManager should never be calling unregisterListener from its own thread"))},
    {"postEvent", [](TestManager& m) { m.postEvent("e", "v", 0); },
     scope("virtual void StatusManager::postEvent(std::string, std::string, uint32_t)",
           Traces::handleEventUpdate, TraceLine::By::Caller)},
    {"clearInfo", [](TestManager& m) { m.clearInfo(); }, scope("void StatusManager::clearInfo()")},
    {"handleStatusUpdate", [](TestManager& m) { m.handleStatusUpdate({}); }, Traces::handleStatusUpdate},
    {"handleEventUpdate", [](TestManager& m) { m.handleEventUpdate("e", "v"); }, Traces::handleEventUpdate},
};

#endif
