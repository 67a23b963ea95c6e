#ifndef BROKER_POLICYINQUIRY_H
#define BROKER_POLICYINQUIRY_H

#include <optional>
#include <string>
#include <string_view>

#include "broker/peer/Users.h"
#include "broker/policy/Policy.h"

/// Explains to people how a policy decides about a client. The client need not be connected.
class PolicyInquiry
{
public:
    /// The policy must outlive this object.
    /// @param client the name or number of a user, the whole name of a service, or both as USER:SERVICE
    /// @param action as named in policy files
    PolicyInquiry(const Policy& policy, const Users& users, std::string_view client, std::string_view action);

    /// The error in the question; empty if there is none.
    const std::string& error() const { return mError; }

    bool isAllowed(std::string_view name) const;

    /// The reason, in one line.
    std::string reason(std::string_view name) const;

private:
    void readClient(const Users& users, std::string_view client);
    void readUser(const Users& users, std::string_view user);
    void readAction(std::string_view action);

    const Policy& mPolicy;
    Subject mSubject;
    std::optional<Action> mAction;
    std::string mError;
};

#endif
