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
class Listener : public IStatusUpdateListener
{
public:
    explicit Listener(std::shared_ptr<Inbox> inbox);

    Orvane::EventDispatcher& dispatcher() { return mDispatcher; }

    void onStatusUpdate(StatusMap updates) override;
    void onEventUpdate(std::string name, std::string value) override;

    /// Subscribes, and thereby passes the present values to the inbox. Manager's thread.
    /// @returns whether there were any
    bool subscribe(StatusManager& manager, const StatusKeys& keys);

private:
    class InPlace : public Orvane::EventDispatcher
    {
    public:
        InPlace();
        void post(Orvane::EventAgent* agent) override;
    };

    const std::shared_ptr<Inbox> mInbox;
    InPlace mDispatcher;
    bool mHasGotValues = false; // manager's thread
};

} // namespace StatusC

#endif
