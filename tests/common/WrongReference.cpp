// Must not compile: the text made of the literal would be gone before the call is made.
#include <string>

#include "common/Calls.h"

struct Receiver
{
    void take(const std::string&) {}
};

void callWithATemporary(Orvane::IEventDispatcher& dispatcher, Receiver& receiver)
{
    Orvane::postCall(OV_SITE, dispatcher, &receiver, &Receiver::take, "literal");
}
