#ifndef BROKER_POLICY_POLICYCOLLECTOR_H
#define BROKER_POLICY_POLICYCOLLECTOR_H

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "broker/policy/PolicyContent.h"
#include "broker/policy/PolicyReader.h"
#include "broker/policy/PolicyText.h"

/// The policy and its errors, collected from all its files.
class PolicyCollector
{
public:
    /// Both arguments must outlive this object.
    PolicyCollector(const PolicyNames& names, std::vector<std::string>& errors);

    /// The policy with its default rule, once. Reports how many errors were left out.
    PolicyContent finished();

    PolicyContent& content() { return mContent; }
    PolicyRule& defaultRule() { return mDefault; }

    /// Adds the errors of a file, in the order of its lines.
    void addErrors(const std::string& file, std::vector<PolicyWord>& errors);

    /// Adds one line; beyond the limit it only counts.
    void addError(std::string text);

    /// False beyond the limit. The limit is reported only once.
    bool countTable() { return ++mTables <= PolicyLimits::tables; }
    bool isFirstBeyondTables() const { return mTables == PolicyLimits::tables + 1; }
    bool countName() { return ++mNameCount <= PolicyLimits::names; }
    bool isFirstBeyondNames() const { return mNameCount == PolicyLimits::names + 1; }

    /// Looks each name up only once.
    std::optional<uid_t> user(const std::string& name) { return lookUp(mUsers, mNames.user, name); }
    std::optional<gid_t> group(const std::string& name) { return lookUp(mGroups, mNames.group, name); }

    /// The index of these subjects in PolicyContent::whos.
    uint16_t indexOf(Who who);

    /// The quota that the user has, and whether it is the given one.
    std::pair<std::size_t, bool> quotaOf(uid_t user, std::size_t quota);

private:
    template <typename Id>
    using Ids = std::map<std::string, std::optional<Id>>;

    template <typename Id, typename Function>
    static std::optional<Id> lookUp(Ids<Id>& known, const Function& function, const std::string& name)
    {
        const auto [place, isNew] = known.try_emplace(name);
        if (isNew && function)
            place->second = function(name);
        return place->second;
    }

    const PolicyNames& mNames;
    std::vector<std::string>& mErrors;
    std::size_t mLeftOut = 0;
    std::size_t mTables = 0;
    std::size_t mNameCount = 0;
    std::map<std::string, std::size_t> mWhos;
    std::map<uid_t, std::size_t> mQuotas;
    Ids<uid_t> mUsers;
    Ids<gid_t> mGroups;
    PolicyRule mDefault{true, 0, Actions::all(), {}, {}};
    PolicyContent mContent;
};

#endif
