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

/// Applies the policy: says which connections are taken, and what their clients may do.
class Guard
{
public:
    /// Both must outlive it.
    /// @throws std::runtime_error if the policy cannot be enforced here, see setPolicy()
    Guard(Identities& identities, Refusals& refusals, std::unique_ptr<const Policy> policy);

    /// Puts another policy in force. Each connection must be admitted anew: what the rules before gave it is
    /// gone.
    /// @throws std::runtime_error if the policy tells clients apart and the kernel does not. Then the policy
    ///         before stays in force. A policy that only logs is taken.
    void setPolicy(std::unique_ptr<const Policy> policy);

    const Policy& policy() const { return *mPolicy; }

    /// Gives a connection the rights of its owner.
    /// @returns false, counted and logged, if the policy asks for something about the owner that is not known
    ///          for sure, or if its user has as many connections as it may. Nothing may be taken from the
    ///          connection then.
    bool admit(Connection& connection);

    /// The connection is closed.
    void dismiss(Connection& connection) { mQuotas.leave(connection); }

    Quotas& quotas() { return mQuotas; }

    /// Whether the client may do this. If not, that is counted and logged as a refusal of the source that
    /// the refusals have now.
    /// @param name of the key, event, timer or counter; empty for Action::Time
    bool may(const Connection& client, Action action, std::string_view name)
    {
        if (client.rights->mayAll(action))
            return true;
        const Decision decision = client.rights->decide(action, name);
        return decision.isAllowed || refuse(action, name, *decision.rule);
    }

    /// Takes the names out of a list that the client may not use for this.
    /// @param nameOf returns the name that an element stands for
    template <class Element, class NameOf>
    void keepAllowed(const Connection& client, Action action, std::vector<Element>& elements, NameOf nameOf)
    {
        if (client.rights->mayAll(action))
            return;
        const auto isRefused = [&](const Element& element) { return !may(client, action, nameOf(element)); };
        elements.erase(std::remove_if(elements.begin(), elements.end(), isRefused), elements.end());
    }

    /// The client may be told of everything.
    static bool seesAll(const Connection& client) { return client.rights->mayAll(Action::See); }

    /// The client may be told of nothing.
    bool hidesAll(const Connection& client) const
    {
        return !mPolicy->isAudit() && client.rights->mayNothing(Action::See);
    }

    /// Whether the client may be told of a value or an event. It is not told that it may not.
    bool shows(Connection& client, std::string_view name);

    /// The same for an answer: the client must also be allowed to ask.
    bool answersWith(Connection& client, std::string_view key);

    /// The same for a list of timers or counters: those are not seen, only asked for.
    bool lists(Connection& client, std::string_view name);

    /// The client may be answered with everything.
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
