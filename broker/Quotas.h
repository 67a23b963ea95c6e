#ifndef BROKER_QUOTAS_H
#define BROKER_QUOTAS_H

#include <cstddef>
#include <map>
#include <optional>
#include <sys/types.h>

#include "broker/base/Refusals.h"
#include "broker/policy/Policy.h"
#include "broker/state/Shares.h"
#include "broker/wire/Connection.h"
#include "daemon/Clock.h"

/// A user's connections, and what it may still post now.
struct UserAccount
{
    std::optional<uid_t> user;
    const PolicyQuota* quota = nullptr; ///< null: the user is not limited
    std::size_t connections = 0;
    double posts = 0; ///< may be negative, as a message may hold many
    TimePoint counted{};
    TimePoint entered{};   ///< its last connection
    bool isBeyond = false; ///< in audit mode the user posts more than its quota, and pays nothing for it
};

/// Keeps each user within the quota that the policy gives it: its connections, its posts, and its part of the
/// state. All users without a known number share one account.
class Quotas
{
public:
    /// @param now the clock that measures rates; tests pass their own
    explicit Quotas(Refusals& refusals, TimePoint (*now)() = &Clock::now) : mRefusals(refusals), mNow(now) {}

    Quotas(const Quotas&) = delete;
    Quotas& operator=(const Quotas&) = delete;

    /// The policy in force, until the next call. Connections must be entered again.
    void setPolicy(const Policy& policy);

    /// Enters a connection, once. Returns false, counted and logged, if it is new and its user has too many.
    bool enter(Connection& connection, TimePoint now);

    /// The connection is closed.
    void leave(Connection& connection);

    /// Whether the user of the connection may post now; counts as one post. A refusal is counted and logged.
    bool mayPost(const Connection& client)
    {
        UserAccount* account = client.account;
        return account == nullptr || !hasRate(*account) || takePost(*account, mNow());
    }

    /// The allowed post holds this many names: each counts as a post.
    static void charge(const Connection& client, std::size_t names)
    {
        UserAccount* account = client.account;
        if (account != nullptr && hasRate(*account) && !account->isBeyond && names > 1)
            account->posts -= static_cast<double>(names - 1);
    }

    /// Whether the user may take this much of the state.
    bool mayTake(Shares::User user, const Shares::Share& before, const Shares::Share& after);

private:
    static bool hasRate(const UserAccount& account)
    {
        return account.quota != nullptr && account.quota->postsPerSecond;
    }
    static void refill(UserAccount& account, TimePoint now);
    bool takePost(UserAccount& account, TimePoint now);
    bool refuse(const PolicyQuota& quota, const char* what);
    void forgetOld(TimePoint now);

    Refusals& mRefusals;
    TimePoint (*const mNow)();
    const Policy* mPolicy = nullptr;
    bool mIsAudit = false;
    std::map<std::optional<uid_t>, UserAccount> mAccounts;
};

#endif
