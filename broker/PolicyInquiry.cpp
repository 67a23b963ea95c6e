#include "broker/PolicyInquiry.h"

#include <algorithm>

#include "daemon/OptionText.h"

namespace
{

// Not the number of any user. Rules for users do not apply to it, and rules for services do.
constexpr auto noUser = static_cast<uid_t>(-1);

bool endsWith(std::string_view text, std::string_view ending)
{
    return text.size() > ending.size() && text.substr(text.size() - ending.size()) == ending;
}

bool isService(std::string_view name)
{
    return endsWith(name, ".service") || endsWith(name, ".scope");
}

} // namespace

PolicyInquiry::PolicyInquiry(const Policy& policy, const Users& users, std::string_view client,
                             std::string_view action)
    : mPolicy(policy)
{
    readClient(users, client);
    if (mError.empty())
        readAction(action);
}

void PolicyInquiry::readClient(const Users& users, std::string_view client)
{
    const std::size_t colon = client.find(':');
    if (colon == std::string_view::npos && isService(client))
    {
        mSubject.user = noUser;
        mSubject.service = client;
    }
    else
        readUser(users, client.substr(0, colon));
    if (colon == std::string_view::npos || !mError.empty())
        return;
    mSubject.service = client.substr(colon + 1);
    if (!isService(mSubject.service))
        mError = OptionText::quoted(mSubject.service) + " is not a service, such as net.service";
}

void PolicyInquiry::readUser(const Users& users, std::string_view user)
{
    const std::optional<uint64_t> number = OptionText::readNumber(user);
    if (number && *number < UINT32_MAX)
        mSubject.user = static_cast<uid_t>(*number);
    else
        mSubject.user = users.uid(user);
    if (!mSubject.user)
        mError = OptionText::quoted(std::string(user)) + " is not a user";
    else
        mSubject.groups = users.groups(*mSubject.user);
}

void PolicyInquiry::readAction(std::string_view action)
{
    const auto* const found = std::find(actionNames.begin(), actionNames.end(), action);
    if (found != actionNames.end())
    {
        mAction = static_cast<Action>(found - actionNames.begin());
        return;
    }
    mError = OptionText::quoted(std::string(action)) + " is not one of";
    for (const std::string_view name : actionNames)
        mError += (name == actionNames.front() ? " " : ", ") + std::string(name);
}

bool PolicyInquiry::isAllowed(std::string_view name) const
{
    return mPolicy.isAudit() || mPolicy.decideOnce(mSubject, *mAction, name).isAllowed;
}

std::string PolicyInquiry::reason(std::string_view name) const
{
    return mPolicy.explain(mSubject, *mAction, name);
}
