#ifndef VESK_COMMON_CALLS_H
#define VESK_COMMON_CALLS_H

#include <cstdint>
#include <type_traits>
#include <utility>

#include "common/EventAgent.h"
#include "common/TrackedNew.h"

/// @file
/// Packages a call of a member function and sends it to a dispatcher. The kind of agent follows from the
/// member function, so that an operation that marshals itself is two lines:
///
///     if (!mThread.isThreadCurrent())
///         return postCall(OV_SITE, mThread, this, &Manager::startTimer, std::move(name));
///
/// All functions here convert the arguments to the parameter types of the member function. The agent then
/// keeps them as MemberCall describes. The caller keeps ownership of the receiver, which must live until the
/// call is made or dropped. When memory runs out, std::bad_alloc is thrown and nothing is sent. Any thread
/// may call them.

namespace Orvane
{

/// Chooses one of several member functions of the same name by its parameter types:
/// `overload<StatusMap>(&StatusManager::postStatus)`.
template <class... A>
struct Overload
{
    /// The member function with exactly these parameters.
    template <class R, class T>
    constexpr auto operator()(R (T::*method)(A...)) const
    {
        return method;
    }
};
/// The one object of Overload<A...>, so that callers need not construct it.
template <class... A>
constexpr Overload<A...> overload{};

/// Packages a call of `method` on `receiver` as an agent of the given kind. An argument that is kept as a
/// reference must be of the parameter's own type: a converted copy would be gone before the call is made.
template <class Kind, class T, class R, class... A, class... Given>
auto* makeCall(AllocationSite& site, T* receiver, R (T::*method)(A...), Given&&... given)
{
    static_assert((... && (!std::is_reference_v<A> || std::is_same_v<std::decay_t<A>, std::decay_t<Given>>)),
                  "a reference needs an argument of its own type");
    return new (site) MemberCall<Kind, T, R, A...>(receiver, method, std::forward<Given>(given)...);
}

/// Whether an agent keeps all of these as copies. A reference could outlive the object it refers to.
template <class... A>
constexpr bool areKeptAsCopies = !(... || std::is_reference_v<A>);

/// Queues the call and returns at once. The member function must take its parameters by value.
template <class T, class... A, class... Given>
void postCall(AllocationSite& site, IEventDispatcher& dispatcher, T* receiver, void (T::*method)(A...),
              Given&&... given)
{
    static_assert(areKeptAsCopies<A...>, "a call that is not waited for must not keep references");
    auto* agent = makeCall<AsyncEventAgent>(site, receiver, method, std::forward<Given>(given)...);
    agent->send(&dispatcher);
}

/// Queues the call `delayMs` milliseconds later and returns at once. The member function must take its
/// parameters by value.
template <class T, class... A, class... Given>
void postCallDelayed(AllocationSite& site, IEventDispatcher& dispatcher, uint32_t delayMs, T* receiver,
                     void (T::*method)(A...), Given&&... given)
{
    static_assert(areKeptAsCopies<A...>, "a call that is not waited for must not keep references");
    dispatcher.postDelayed(makeCall<AsyncEventAgent>(site, receiver, method, std::forward<Given>(given)...),
                           delayMs);
}

/// Waits until the call has been made and returns its result. On the dispatcher's own thread the call is made
/// in place. An exception of the call is thrown here. A call that is dropped unmade yields a
/// default-constructed result.
template <class T, class R, class... A, class... Given>
R callAndWait(AllocationSite& site, IEventDispatcher& dispatcher, T* receiver, R (T::*method)(A...),
              Given&&... given)
{
    using Kind = std::conditional_t<std::is_void_v<R>, SyncEventAgent, SyncRetEventAgent<R>>;
    auto* agent = makeCall<Kind>(site, receiver, method, std::forward<Given>(given)...);
    return agent->send(&dispatcher);
}

} // namespace Orvane

#endif
