#ifndef BROKER_STATE_SHARES_H
#define BROKER_STATE_SHARES_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <utility>

/// How much of the state each user takes: the values that it posted last.
class Shares
{
public:
    using User = std::optional<uint32_t>; ///< nothing: all unknown users

    struct Share
    {
        std::size_t keys = 0;
        std::size_t bytes = 0; ///< of keys and values
    };

    /// Whether a user may take this much.
    using Judge = std::function<bool(User, const Share& before, const Share& after)>;

    /// Starts with nothing taken. Without a judge, nothing is counted.
    void begin(Judge judge)
    {
        mJudge = std::move(judge);
        mShares.clear();
    }

    bool isUsed() const { return mJudge != nullptr; }

    Share of(User user) const
    {
        const auto share = mShares.find(user);
        return share == mShares.end() ? Share() : share->second;
    }

    /// Whether `by` may take a value of this size in place of the value of `from`.
    bool mayMove(User from, const Share& former, User by, const Share& value) const
    {
        const Share before = of(by);
        Share after = before;
        if (from == by)
            after = {after.keys - former.keys, after.bytes - former.bytes};
        return mJudge(by, before, {after.keys + value.keys, after.bytes + value.bytes});
    }

    void add(User user, const Share& value)
    {
        Share& share = mShares[user];
        share = {share.keys + value.keys, share.bytes + value.bytes};
    }

    void remove(User user, const Share& value)
    {
        const auto share = mShares.find(user);
        if (share == mShares.end())
            return;
        share->second = {share->second.keys - value.keys, share->second.bytes - value.bytes};
        if (share->second.keys == 0)
            mShares.erase(share);
    }

private:
    Judge mJudge;
    std::map<User, Share> mShares;
};

#endif
