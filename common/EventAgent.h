#ifndef VESK_COMMON_EVENTAGENT_H
#define VESK_COMMON_EVENTAGENT_H

#include <cstddef>
#include <cstdint>
#include <tuple>
#include <type_traits>
#include <utility>

#include "common/Export.h"
#include "common/IEventDispatcher.h"
#include "common/RefCount.h"

namespace Orvane
{

/// A reference-counted event. EventAgent is the kind that dispatchers deliver.
class OV_EXPORT Event : public RefCount
{
public:
    ~Event() override;

protected:
    /// The code tells kinds of event apart.
    explicit Event(int32_t eventCode) : mEventCode(eventCode) {}

    int32_t mEventCode;        ///< As given to the constructor.
    void* mUserData = nullptr; ///< Free for other kinds of event; agents never use it.
};

/// One member-function call, packaged with its arguments to be made on a dispatcher's thread.
///
/// Make an agent with OV_NEW, send it once and never delete it. Each holder (the dispatcher's queue, a
/// waiting sender) has a count on the agent. The release of the last count destroys it.
class OV_EXPORT EventAgent : public Event
{
public:
    ~EventAgent() override;

    /// Makes the packaged call, on the calling thread. Called by dispatchers.
    virtual void deliver() = 0;

    /// The receiver of the call. removeAgentsByReceiver() finds the agents to drop by it.
    virtual void* getDeliveryTarget() = 0;

protected:
    EventAgent();
};

/// An agent whose sender does not wait.
class OV_EXPORT AsyncEventAgent : public EventAgent
{
public:
    ~AsyncEventAgent() override;

    /// Queues the agent and returns at once. Any thread. The dispatcher drops the agent when its receiver is
    /// removed or the thread has ended. A dropped agent is destroyed undelivered.
    void send(IEventDispatcher* dispatcher);
};

/// An agent whose sender waits until it has been delivered; no result.
class OV_EXPORT SyncEventAgent : public EventAgent
{
public:
    ~SyncEventAgent() override;

    /// Returns when the call has been made. On the dispatcher's own thread the call is made right here,
    /// before everything queued. Any thread. An exception that leaves the call is thrown here. If the agent
    /// is dropped undelivered, send() returns although the call was not made. The agent no longer exists
    /// afterwards.
    void send(IEventDispatcher* dispatcher);
};

/// Delivers the agent in place on the dispatcher's own thread, through its queue otherwise. The caller holds
/// a count on the agent.
OV_EXPORT void deliverAndWait(EventAgent& agent, IEventDispatcher& dispatcher);

/// As SyncEventAgent, with a result.
template <class R>
class SyncRetEventAgent : public EventAgent
{
public:
    /// As SyncEventAgent::send(), and returns a copy of the call's result. If the agent is dropped
    /// undelivered, returns a default-constructed R.
    R send(IEventDispatcher* dispatcher)
    {
        const SmartPtr<EventAgent> hold(this);
        deliverAndWait(*this, *dispatcher);
        return mResult;
    }

protected:
    R mResult{}; ///< The call's result, once it was made.
};

/// The call itself: receiver, member function, arguments. A pointer to a virtual member reaches the
/// receiver's most-derived override. A parameter that is a constant reference is kept as a reference; only
/// the waiting kinds may use such parameters. Every other argument is kept as a copy, and each delivery
/// passes on a copy of that copy.
template <class Kind, class T, class R, class... A>
class MemberCall : public Kind
{
public:
    /// The member function that is called.
    using Method = R (T::*)(A...);

    /// Packages the call. The caller keeps ownership of the receiver, which must live until the agent is
    /// delivered or dropped.
    MemberCall(T* receiver, Method method, A... arguments)
        : mReceiver(receiver), mMethod(method), mArguments(std::forward<A>(arguments)...)
    {
        static_assert(alignof(MemberCall) <= alignof(std::max_align_t),
                      "over-aligned arguments are not kept");
    }

    /// Makes the call and keeps its result, if there is one.
    void deliver() override { call(std::index_sequence_for<A...>()); }
    /// The receiver.
    void* getDeliveryTarget() override { return mReceiver; }

private:
    template <std::size_t... I>
    void call(std::index_sequence<I...>)
    {
        if constexpr (std::is_void_v<R>)
            (mReceiver->*mMethod)(std::get<I>(mArguments)...);
        else
            this->mResult = (mReceiver->*mMethod)(std::get<I>(mArguments)...);
    }

    T* mReceiver;
    Method mMethod;
    std::tuple<A...> mArguments;
};

/// @{
/// A call shape. Each is constructed from (receiver, member function, arguments...).
template <class T, class A1>
using AsyncEventAgent1 = MemberCall<AsyncEventAgent, T, void, A1>;
template <class T, class A1, class A2>
using AsyncEventAgent2 = MemberCall<AsyncEventAgent, T, void, A1, A2>;
template <class T, class A1, class A2, class A3>
using AsyncEventAgent3 = MemberCall<AsyncEventAgent, T, void, A1, A2, A3>;
template <class T>
using SyncEventAgent0 = MemberCall<SyncEventAgent, T, void>;
template <class T, class A1>
using SyncEventAgent1 = MemberCall<SyncEventAgent, T, void, A1>;
template <class T, class A1, class A2>
using SyncEventAgent2 = MemberCall<SyncEventAgent, T, void, A1, A2>;
template <class T, class R>
using SyncRetEventAgent0 = MemberCall<SyncRetEventAgent<R>, T, R>;
template <class T, class R, class A1>
using SyncRetEventAgent1 = MemberCall<SyncRetEventAgent<R>, T, R, A1>;
/// @}

} // namespace Orvane

#endif
