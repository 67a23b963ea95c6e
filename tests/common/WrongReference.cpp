// None of these may compile: the text would be destroyed before the call.
#include <string>

#include "common/Calls.h"

struct Receiver
{
    void take(const std::string&) {}
};

#ifdef WAIT_WITH_A_TEMPORARY
void callWithATemporary(Orvane::IEventDispatcher& dispatcher, Receiver& receiver)
{
    Orvane::callAndWait(OV_SITE, dispatcher, &receiver, &Receiver::take, "literal");
}
#endif

#ifdef POST
void post(Orvane::IEventDispatcher& dispatcher, Receiver& receiver, const std::string& text)
{
    Orvane::postCall(OV_SITE, dispatcher, &receiver, &Receiver::take, text);
}
#endif

#ifdef POST_DELAYED
void postDelayed(Orvane::IEventDispatcher& dispatcher, Receiver& receiver, const std::string& text)
{
    Orvane::postCallDelayed(OV_SITE, dispatcher, 5, &receiver, &Receiver::take, text);
}
#endif
