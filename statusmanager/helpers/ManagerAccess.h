#ifndef STATUSMANAGER_HELPERS_MANAGERACCESS_H
#define STATUSMANAGER_HELPERS_MANAGERACCESS_H

#include "statusmanager/StatusManager.h"

namespace status
{

/// Gives the helpers access to protected members of any manager, by naming them in a derived class. There is
/// no object of this class.
class ManagerAccess : public StatusManager
{
public:
    ManagerAccess() = delete;

    /// The thread on which helpers queue work behind the manager's, and notice the manager's end.
    static Orvane::EventThread& threadOf(StatusManager& manager)
    {
        return manager.*(&ManagerAccess::mThread);
    }

    /// Unregisters a listener on the manager's thread, where unregisterListener() is refused.
    static void removeListener(StatusManager& manager, IStatusUpdateListener* listener)
    {
        (manager.*(&ManagerAccess::unregisterListenerHelper))(listener);
    }
};

} // namespace status

#endif
