#include "broker/Guard.h"

#include <algorithm>
#include <stdexcept>

#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

namespace
{

// The place of a rule, for a log line.
const char* placeOf(const PolicyRule& rule)
{
    return rule.place.empty() ? "the default" : rule.place.c_str();
}

} // namespace

Guard::Guard(Identities& identities, Refusals& refusals, std::unique_ptr<const Policy> policy)
    : mIdentities(identities), mRefusals(refusals), mQuotas(refusals)
{
    setPolicy(std::move(policy));
}

void Guard::setPolicy(std::unique_ptr<const Policy> policy)
{
    check(*policy);
    if (policy->tellsClientsApart() && !mIdentities.tellsAllUsers())
        OV_LOG(2, "The broker runs in a user namespace that lacks some users: the policy refuses their "
                  "connections");
    mPolicy = std::move(policy);
    mQuotas.setPolicy(*mPolicy);
}

void Guard::check(const Policy& policy) const
{
    if (policy.isAudit())
        return;
    if (policy.tellsClientsApart() && !mIdentities.tellsUsers())
        throw std::runtime_error(
            "the policy names clients, but neither sock_diag nor /proc/net/tcp reports the owner of "
            "a connection");
    if (policy.namesServices() && !mIdentities.tellsServices())
        throw std::runtime_error(
            "the policy names services, but this kernel does not report them: that needs "
            "sock_diag with control groups of version 2");
}

// ------------------------------------------------------------------------------------------ at the beginning

bool Guard::admit(Connection& connection)
{
    mIdentities.completeService(connection.identity);
    const char* unknown = lacking(connection.identity);
    if (unknown != nullptr && !reportUnknown(connection, unknown))
        return false;
    if (!mQuotas.enter(connection, Clock::now()))
        return false;
    connection.rights = &mPolicy->classOf(subjectOf(connection.identity));
    return true;
}

// Returns whether the connection may stay nevertheless. A connection that has ended without sending anything
// was only a check whether the broker runs, and is not logged.
bool Guard::reportUnknown(Connection& connection, const char* reason)
{
    const bool isAudit = mPolicy->isAudit();
    if (connection.identity.owner.hasGone() && connection.arrivals() == 0)
        return isAudit;
    const Refusals::From from(mRefusals, connection);
    mRefusals.report(isAudit ? Refusal::Audited : Refusal::UnknownOwner,
                     "%s a connection, the policy needs to know its owner: %s",
                     isAudit ? "Would refuse" : "Refused", reason);
    return isAudit;
}

// A rule about other clients could apply to an unknown client. So leaving the rule out is not enough: it may
// be the rule that denies.
const char* Guard::lacking(const Identity& identity) const
{
    if (mPolicy->tellsClientsApart() && !identity.owner.uid())
        return identity.owner.reason();
    if (mPolicy->namesServices() && !identity.isServiceKnown)
        return "its service is unknown";
    if (mPolicy->namesGroups() && !mIdentities.users().isKnown(*identity.owner.uid()))
        return "its groups are unknown: /etc/passwd has no such user";
    return nullptr;
}

Subject Guard::subjectOf(const Identity& identity) const
{
    Subject subject;
    subject.user = identity.owner.uid();
    if (subject.user && mPolicy->namesGroups()) // otherwise reading the files is not worth while
        subject.groups = mIdentities.users().groups(*subject.user);
    subject.service = identity.service;
    return subject;
}

// ------------------------------------------------------------------------------------------------ later on

bool Guard::refuse(Action action, std::string_view name, const PolicyRule& rule)
{
    const bool isAudit = mPolicy->isAudit();
    const bool hasName = action != Action::Time;
    mRefusals.report(isAudit ? Refusal::Audited : Refusal::Denied, "%s %s%s%.*s%s, by %s",
                     isAudit ? "Would deny" : "Denied", nameOf(action).data(), hasName ? " of [" : "",
                     excerptLength(name), name.data(), hasName ? "]" : "", placeOf(rule));
    return isAudit;
}

bool Guard::shows(Connection& client, std::string_view name)
{
    return !hides(client, Action::See, name);
}

bool Guard::answersWith(Connection& client, std::string_view key)
{
    return !hides(client, Action::See, key) && !hides(client, Action::Query, key);
}

bool Guard::lists(Connection& client, std::string_view name)
{
    return !hides(client, Action::Query, name);
}

bool Guard::hides(Connection& client, Action action, std::string_view name)
{
    const Decision decision = client.rights->decide(action, name);
    if (decision.isAllowed)
        return false;
    if (!mPolicy->isAudit())
        return true;
    const Refusals::From from(mRefusals, client);
    mRefusals.report(Refusal::AuditedView, "Would not show [%.*s], %s denied by %s", excerptLength(name),
                     name.data(), nameOf(action).data(), placeOf(*decision.rule));
    return false;
}
