#include "broker/Quotas.h"

#include <algorithm>
#include <utility>

namespace
{

// A user may post at once as much as in this time. An account without connections is kept this long, so that
// its user gains nothing by reconnecting.
constexpr std::chrono::seconds burst{1};

// From this number of accounts, old ones are dropped.
constexpr std::size_t manyAccounts = 64;

} // namespace

void Quotas::setPolicy(const Policy& policy)
{
    const bool wasAudit = std::exchange(mIsAudit, policy.isAudit());
    mPolicy = &policy;
    for (auto& [user, account] : mAccounts)
    {
        account.quota = policy.quotaFor(user);
        if (wasAudit)
            account.posts = std::max(account.posts, 0.0); // excess that was only logged is not owed
    }
}

bool Quotas::enter(Connection& connection, TimePoint now)
{
    if (connection.account != nullptr || !mPolicy->hasQuotas())
        return true;
    forgetOld(now);
    const std::optional<uid_t> user = connection.identity.owner.uid();
    const auto [place, isNew] = mAccounts.try_emplace(user);
    UserAccount& account = place->second;
    if (isNew)
        account = {user, mPolicy->quotaFor(user), 0, 0, now - burst, now};
    const bool isWithin = account.quota == nullptr || !account.quota->connections ||
                          account.connections < *account.quota->connections;
    const bool isNewConnection = connection.rights == nullptr;
    const Refusals::From from(mRefusals, connection);
    if (!isWithin && isNewConnection && !refuse(*account.quota, "a connection"))
        return false;
    ++account.connections;
    account.entered = now;
    connection.account = &account;
    return true;
}

void Quotas::leave(Connection& connection)
{
    if (UserAccount* account = std::exchange(connection.account, nullptr))
        --account->connections;
}

void Quotas::forgetOld(TimePoint now)
{
    if (mAccounts.size() < manyAccounts)
        return;
    for (auto each = mAccounts.begin(); each != mAccounts.end();)
    {
        UserAccount& account = each->second;
        refill(account, now);
        const bool owes = hasRate(account) && account.posts < 0;
        const bool isIdle = account.connections == 0 && !owes && account.entered + burst < now;
        each = isIdle ? mAccounts.erase(each) : std::next(each);
    }
}

void Quotas::refill(UserAccount& account, TimePoint now)
{
    if (!hasRate(account))
        return;
    const auto rate = static_cast<double>(*account.quota->postsPerSecond);
    const double most = rate * std::chrono::duration<double>(burst).count();
    const std::chrono::duration<double> time = now - account.counted;
    account.posts = std::min(most, account.posts + rate * time.count());
    account.counted = now;
}

bool Quotas::takePost(UserAccount& account, TimePoint now)
{
    refill(account, now);
    account.isBeyond = account.posts < 1;
    if (account.isBeyond)
        return refuse(*account.quota, "a post");
    account.posts -= 1;
    return true;
}

bool Quotas::mayTake(Shares::User user, const Shares::Share& before, const Shares::Share& after)
{
    const PolicyQuota* quota = mPolicy->quotaFor(user);
    if (quota == nullptr)
        return true;
    const auto isBeyond = [](const std::optional<std::size_t>& most, std::size_t less, std::size_t more)
    { return most && more > less && more > *most; };
    if (isBeyond(quota->keys, before.keys, after.keys))
        return refuse(*quota, "a key");
    if (isBeyond(quota->bytes, before.bytes, after.bytes))
        return refuse(*quota, "bytes of a value");
    return true;
}

// Returns whether to do it nevertheless.
bool Quotas::refuse(const PolicyQuota& quota, const char* what)
{
    const bool isAudit = mPolicy->isAudit();
    mRefusals.report(isAudit ? Refusal::Audited : Refusal::Quota, "%s %s, beyond the quota of %s: %s",
                     isAudit ? "Would refuse" : "Refused", what, quota.text.c_str(), quota.place.c_str());
    return isAudit;
}
