#ifndef TESTS_SUPPORT_AGENTTYPES_H
#define TESTS_SUPPORT_AGENTTYPES_H

#include <type_traits>
#include <utility>

#include "common/Calls.h"

/// For static_assert: whether this helper makes exactly this agent for a call of `method`.

template <class Agent, class Kind, class T, class R, class... A>
constexpr bool isMadeAs(R (T::*)(A...))
{
    using Made = decltype(Orvane::makeCall<Kind>(std::declval<Orvane::AllocationSite&>(), std::declval<T*>(),
                                                 std::declval<R (T::*)(A...)>(), std::declval<A>()...));
    return std::is_same_v<Agent*, Made>;
}

/// Made by postCall() and postCallDelayed().
template <class Agent, class T, class... A>
constexpr bool isPosted(void (T::*method)(A...))
{
    return isMadeAs<Agent, Orvane::AsyncEventAgent>(method);
}

/// Made by callAndWait() for calls without a result.
template <class Agent, class T, class... A>
constexpr bool isAwaited(void (T::*method)(A...))
{
    return isMadeAs<Agent, Orvane::SyncEventAgent>(method);
}

/// Made by callAndWait() for calls with a result.
template <class Agent, class T, class R, class... A>
constexpr bool isAsked(R (T::*method)(A...))
{
    return isMadeAs<Agent, Orvane::SyncRetEventAgent<R>>(method);
}

#endif
