#ifndef BROKER_QUOTAS_H
#define BROKER_QUOTAS_H

#include <cstddef>
#include <map>
#include <optional>
#include <sys/types.h>

#include "broker/base/Clock.h"
#include "broker/base/Refusals.h"
#include "broker/policy/Policy.h"
#include "broker/state/Shares.h"
#include "broker/wire/Connection.h"

/// A user with its connections, and with what it may still post now.
struct UserAccount
{
    std::optional<uid_t> user;
    const PolicyQuota* quota = nullptr; ///< null: it has no share, and is not limited
    std::size_t connections = 0;
    double posts = 0; ///< may be negative, as a message may hold many
    TimePoint counted{};
    TimePoint entered{};   ///< its last connection
    bool isBeyond = false; ///< it posts more than it may, in audit mode: that costs nothing
};

/// Keeps each user within the share that the policy gives it: its connections, its posts, and its part of the
/// state. Users whose number is not known are one user.
class Quotas
{
public:
    /// @param now for tests: the clock that the rates are measured with
    explicit Quotas(Refusals& refusals, TimePoint (*now)() = &Clock::now) : mRefusals(refusals), mNow(now) {}

    Quotas(const Quotas&) = delete;
    Quotas& operator=(const Quotas&) = delete;

    /// The policy in force, until the next call. Connections must be entered anew.
    void setPolicy(const Policy& policy);

    /// Enters a connection, once. False, counted and logged, if it is new and its user has as many as it may.
    bool enter(Connection& connection, TimePoint now);

    /// The connection is closed.
    void leave(Connection& connection);

    /// Whether the user of the connection may post something now, which counts as one post. If not, that is
    /// counted and logged.
    bool mayPost(const Connection& client)
    {
        UserAccount* account = client.account;
        return account == nullptr || !hasRate(*account) || takePost(*account, mNow());
    }

    /// The post that was allowed holds so many names: each counts as a post.
    static void charge(const Connection& client, std::size_t names)
    {
        UserAccount* account = client.account;
        if (account != nullptr && hasRate(*account) && !account->isBeyond && names > 1)
            account->posts -= static_cast<double>(names - 1);
    }

    /// Whether the user may take so much of the state.
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
