#ifndef STATUSMANAGER_HELPERS_DISPATCHERLINK_H
#define STATUSMANAGER_HELPERS_DISPATCHERLINK_H

#include <mutex>

#include "common/EventDispatcher.h"

namespace status
{

/// The way to a dispatcher that may be gone: it hands agents on from open() to cut(), and drops all others.
/// For asynchronous agents only. Any thread.
///
/// The target's owner must not destroy it before cut() has returned; see EndNotice.
class DispatcherLink : public Orvane::EventDispatcher
{
public:
    DispatcherLink();

    void open(Orvane::EventDispatcher& target);

    void post(Orvane::EventAgent* agent) override;

    /// Hands this agent on and cuts the link, with nothing in between: it is the last.
    void postLast(Orvane::EventAgent* agent);

    void cut();

private:
    std::mutex mMutex;
    Orvane::EventDispatcher* mTarget = nullptr; // null while it is cut; used under the lock
};

} // namespace status

#endif
