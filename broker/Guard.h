#ifndef BROKER_GUARD_H
#define BROKER_GUARD_H

#include <algorithm>
#include <memory>
#include <string_view>
#include <vector>

#include "broker/Quotas.h"
#include "broker/base/Refusals.h"
#include "broker/peer/Identities.h"
#include "broker/policy/Policy.h"
#include "broker/wire/Connection.h"

/// Applies the policy: decides which connections are accepted, and what their clients may do.
class Guard
{
public:
    /// Both references must outlive this object.
    /// @throws std::runtime_error if the policy cannot be enforced here, see setPolicy()
    Guard(Identities& identities, Refusals& refusals, std::unique_ptr<const Policy> policy);

    /// Puts another policy in force. Each connection must be admitted again: the rights that it holds become
    /// invalid.
    /// @throws std::runtime_error if the policy distinguishes clients and the kernel cannot. The previous
    ///     policy then stays in force. A policy in audit mode is always accepted.
    void setPolicy(std::unique_ptr<const Policy> policy);

    const Policy& policy() const { return *mPolicy; }

    /// Gives a connection the rights of its owner.
    /// @returns false, counted and logged, if the policy needs an uncertain fact about the owner, or its user
    ///     has too many connections. Then nothing may be read from the connection.
    bool admit(Connection& connection);

    /// The connection is closed.
    void dismiss(Connection& connection) { mQuotas.leave(connection); }

    Quotas& quotas() { return mQuotas; }

    /// Whether the client may do this. A refusal is counted, and logged under the current source of the
    /// refusals.
    /// @param name of the key, event, timer or counter; empty for Action::Time
    bool may(const Connection& client, Action action, std::string_view name)
    {
        if (client.rights->mayAll(action))
            return true;
        const Decision decision = client.rights->decide(action, name);
        return decision.isAllowed || refuse(action, name, *decision.rule);
    }

    /// Removes the names from a list that the client may not use for this action.
    /// @param nameOf returns the name of an element
    template <class Element, class NameOf>
    void keepAllowed(const Connection& client, Action action, std::vector<Element>& elements, NameOf nameOf)
    {
        if (client.rights->mayAll(action))
            return;
        const auto isRefused = [&](const Element& element) { return !may(client, action, nameOf(element)); };
        elements.erase(std::remove_if(elements.begin(), elements.end(), isRefused), elements.end());
    }

    /// Whether the client may see everything.
    static bool seesAll(const Connection& client) { return client.rights->mayAll(Action::See); }

    /// Whether the client may see nothing.
    bool hidesAll(const Connection& client) const
    {
        return !mPolicy->isAudit() && client.rights->mayNothing(Action::See);
    }

    /// Whether the client may see a value or an event. The client does not learn of a refusal.
    bool shows(Connection& client, std::string_view name);

    /// The same for an answer: the client must also be allowed to query.
    bool answersWith(Connection& client, std::string_view key);

    /// The same for a list of timers or counters: they need only the right to query, not to see.
    bool lists(Connection& client, std::string_view name);

    /// Whether an answer to the client may hold everything.
    static bool answersWithAll(const Connection& client)
    {
        return seesAll(client) && client.rights->mayAll(Action::Query);
    }

    const Users& users() { return mIdentities.users(); }

private:
    bool reportUnknown(Connection& connection, const char* reason);
    bool refuse(Action action, std::string_view name, const PolicyRule& rule);
    bool hides(Connection& client, Action action, std::string_view name);
    const char* lacking(const Identity& identity) const;
    Subject subjectOf(const Identity& identity) const;
    void check(const Policy& policy) const;

    Identities& mIdentities;
    Refusals& mRefusals;
    std::unique_ptr<const Policy> mPolicy;
    Quotas mQuotas;
};

#endif
