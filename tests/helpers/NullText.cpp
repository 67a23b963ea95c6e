#include "statusmanager/Helpers.h"

// None of these may compile. Without them, the file compiles.
void wrong()
{
    status::post("n", 0); // a number
    status::post("n", "");
    status::postEvent("bell");
#ifdef POST
    status::post("n", nullptr);
#endif
#ifdef POST_EVENT
    status::postEvent("bell", nullptr);
#endif
#ifdef POST_EVENT_ZERO
    status::postEvent("bell", 0);
#endif
#ifdef FIND
    static_cast<void>(status::find(nullptr));
#endif
#ifdef CHARACTER
    status::post("n", 'c');
#endif
}
