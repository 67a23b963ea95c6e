#ifndef STATUSMANAGER_HELPERS_DISPATCHERLINK_H
#define STATUSMANAGER_HELPERS_DISPATCHERLINK_H

#include <mutex>

#include "common/EventDispatcher.h"

namespace status
{

/// Passes agents on to a dispatcher that may be destroyed earlier. Between open() and cut() agents are passed
/// on; all others are dropped. For asynchronous agents only. Any thread.
///
/// The target's owner must not destroy it before cut() has returned; see EndNotice.
class DispatcherLink : public Orvane::EventDispatcher
{
public:
    DispatcherLink();

    void open(Orvane::EventDispatcher& target);

    void post(Orvane::EventAgent* agent) override;

    /// Passes this agent on and cuts the link in one step, so that no other agent follows.
    void postLast(Orvane::EventAgent* agent);

    void cut();

private:
    std::mutex mMutex;
    Orvane::EventDispatcher* mTarget = nullptr; // null while the link is cut; guarded by mMutex
};

} // namespace status

#endif
