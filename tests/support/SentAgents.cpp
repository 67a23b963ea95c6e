#include "tests/support/SentAgents.h"

#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <memory>
#include <utility>

#include "common/EventAgent.h"
#include "common/EventDispatcher.h"

namespace
{

thread_local bool isRecording = false;
thread_local std::vector<std::string> recorded;

void record(const Orvane::EventAgent& agent)
{
    if (isRecording)
        recorded.push_back(SentAgents::nameOf(typeid(agent)));
}

// A member function takes its object as the first argument.
template <class Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

namespace SentAgents
{

std::string nameOf(const std::type_info& type)
{
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    return name == nullptr ? type.name() : name.get();
}

void begin()
{
    recorded.clear();
    isRecording = true;
}

std::vector<std::string> end()
{
    isRecording = false;
    return std::exchange(recorded, {});
}

} // namespace SentAgents

// ------------------------------------------------------------------------- replaces the library's functions
//
// The program's definitions take precedence over the library's, also for calls inside the libraries.

namespace Orvane
{

void AsyncEventAgent::send(IEventDispatcher* dispatcher)
{
    record(*this);
    next<void(AsyncEventAgent*, IEventDispatcher*)>(
        "_ZN6Orvane15AsyncEventAgent4sendEPNS_16IEventDispatcherE")(this, dispatcher);
}

void deliverAndWait(EventAgent& agent, IEventDispatcher& dispatcher)
{
    record(agent);
    next<void(EventAgent&, IEventDispatcher&)>(
        "_ZN6Orvane14deliverAndWaitERNS_10EventAgentERNS_16IEventDispatcherE")(agent, dispatcher);
}

// Not calling the function above: whether that call reaches the replacement depends on the compiler.
void SyncEventAgent::send(IEventDispatcher* dispatcher)
{
    const SmartPtr<EventAgent> hold(this);
    deliverAndWait(*this, *dispatcher);
}

void EventDispatcher::postDelayed(EventAgent* agent, uint32_t delayMs)
{
    record(*agent);
    next<void(EventDispatcher*, EventAgent*, uint32_t)>(
        "_ZN6Orvane15EventDispatcher11postDelayedEPNS_10EventAgentEj")(this, agent, delayMs);
}

} // namespace Orvane
