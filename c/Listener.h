#ifndef C_LISTENER_H
#define C_LISTENER_H

#include <memory>

#include "c/Inbox.h"
#include "common/EventDispatcher.h"
#include "statusmanager/StatusManager.h"

namespace StatusC
{

/// Passes the manager's updates to an inbox, in place on the manager's thread. That is possible because an
/// inbox never waits and never calls the manager. It saves a thread with a queue that has no limit, and tells
/// exactly which values are the first ones after a subscription.
///
/// The first subscription registers it. ManagerAccess::removeListener() must unregister it.
class Listener : public IStatusUpdateListener
{
public:
    explicit Listener(std::shared_ptr<Inbox> inbox);

    void onStatusUpdate(StatusMap updates) override;
    void onEventUpdate(std::string name, std::string value) override;

    /// Subscribes, and thereby passes the present values to the inbox. Manager's thread.
    /// @returns whether there were any
    bool subscribe(StatusManager& manager, const StatusKeys& keys);
    // Manager's thread, these too.
    void subscribeEvents(StatusManager& manager, const EventKeys& names);
    void unsubscribe(StatusManager& manager, const StatusKeys& keys);
    void unsubscribeEvents(StatusManager& manager, const EventKeys& names);

private:
    class InPlace : public Orvane::EventDispatcher
    {
    public:
        InPlace();
        void post(Orvane::EventAgent* agent) override;
    };

    void join(StatusManager& manager);

    const std::shared_ptr<Inbox> mInbox;
    InPlace mDispatcher;
    bool mHasGotValues = false; // manager's thread, both
    bool mHasJoined = false;
};

} // namespace StatusC

#endif
