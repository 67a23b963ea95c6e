#ifndef STATUSMANAGER_HELPERS_MANAGERACCESS_H
#define STATUSMANAGER_HELPERS_MANAGERACCESS_H

#include "statusmanager/StatusManager.h"

namespace status
{

/// What the helpers use of any manager beside its public operations: members for derived classes, reached
/// through their names in one. There is no object of this class.
class ManagerAccess : public StatusManager
{
public:
    ManagerAccess() = delete;

    /// To follow what is queued there, and to notice the manager's end.
    static Orvane::EventThread& threadOf(StatusManager& manager)
    {
        return manager.*(&ManagerAccess::mThread);
    }

    /// On the manager's thread, where unregisterListener() is refused.
    static void removeListener(StatusManager& manager, IStatusUpdateListener* listener)
    {
        (manager.*(&ManagerAccess::unregisterListenerHelper))(listener);
    }
};

} // namespace status

#endif
