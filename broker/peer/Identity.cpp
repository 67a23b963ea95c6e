#include "broker/peer/Identity.h"

namespace
{

void add(std::string& text, const std::string& part)
{
    text += text.empty() ? "" : ", ";
    text += part;
}

} // namespace

std::string Identity::text() const
{
    std::string text = service;
    add(text, user.empty() ? std::string("unknown user (") + owner.reason() + ')' : "user " + user);
    if (pid != 0)
        add(text, "process " + std::to_string(pid) + " (" + program + ')' + (isShared ? " and others" : ""));
    return text;
}
