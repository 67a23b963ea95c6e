#ifndef BROKER_POLICY_POLICY_H
#define BROKER_POLICY_POLICY_H

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "broker/policy/Action.h"
#include "broker/policy/KeyIndex.h"
#include "broker/policy/PolicyContent.h"
#include "broker/policy/PolicyReader.h"

/// A decision of a policy, and its reason.
struct Decision
{
    bool isAllowed;
    const PolicyRule* rule; ///< the rule that matched first, or the default; never null
};

/// The rules of a policy that concern one kind of client.
class PolicyClass
{
public:
    /// By the first rule that names the action and matches the name. In the order of the files' names, and of
    /// the rules in a file. Allocates nothing.
    /// @param name of the key, event, timer or counter; empty for Action::Time
    Decision decide(Action action, std::string_view name) const
    {
        const std::size_t rule = mIndexes[static_cast<std::size_t>(action)]->find(name, mDefault);
        return {mRules[rule].isAllowed, mRules + rule};
    }

    /// The action is allowed for every name: there is no need to ask for each.
    bool mayAll(Action action) const { return mFree.has(action); }

    /// The action is denied for every name.
    bool mayNothing(Action action) const { return mBarred.has(action); }

private:
    friend class Policy;

    std::array<const KeyIndex*, actionCount> mIndexes{};
    const PolicyRule* mRules = nullptr;
    KeyIndex::Order mDefault = 0;
    Actions mFree;
    Actions mBarred;
};

/// Which client may do what with which names; see packaging/example.policy for the files. Never changes:
/// other files make another policy, and what this one gave out goes with it.
///
/// For one thread only, as classOf() remembers what it has made.
class Policy
{
public:
    /// Allows everything.
    Policy() : Policy(readPolicy({}, {}, none())) {}

    explicit Policy(PolicyContent content);
    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;
    ~Policy() = default;

    /// The rules for such a client. Clients that the same rules concern share them, so a policy makes as many
    /// as it makes differences, whatever clients come. Valid as long as the policy.
    const PolicyClass& classOf(const Subject& subject) const;

    /// The same decision for somebody who need not be a client. Takes time in proportion to the policy.
    Decision decideOnce(const Subject& subject, Action action, std::string_view name) const;

    /// Nothing is refused, and what would be refused is logged.
    bool isAudit() const { return mContent.isAudit; }

    /// Some rules are not about everybody, or users have shares: that says nothing about a client whose user
    /// is not known.
    bool tellsClientsApart() const { return mContent.whos.size() > 1 || hasQuotas(); }

    /// Some of them are about services, or groups.
    bool namesServices() const;
    bool namesGroups() const;

    /// How many rules there are, without the default.
    std::size_t rules() const { return mContent.rules.size() - 1; }

    /// Some users have shares.
    bool hasQuotas() const { return !mContent.quotas.empty(); }

    /// The rule for a value whose last poster has gone. Null if there is none: the value stays.
    const PolicyTie* tieFor(std::string_view key) const;

    /// Some values end with their owner.
    bool hasTies() const { return !mContent.ties.empty(); }

    /// The share of a user. Null if the user has none.
    /// @param user nothing if it is unknown: the share is that of each user without one of its own
    const PolicyQuota* quotaFor(std::optional<uid_t> user) const;

    /// The decision and its reason, in one line for people.
    std::string explain(const Subject& subject, Action action, std::string_view name) const;

    /// All of the policy, in lines for people.
    std::string describe() const;

    /// Lines of the files that are good, but seldom meant; "FILE:LINE: ...".
    const std::vector<std::string>& warnings() const { return mContent.warnings; }

private:
    using RuleIndexes = std::vector<KeyIndex::Order>;

    static std::vector<std::string>& none();
    std::unique_ptr<const PolicyClass> makeClass(const std::vector<uint16_t>& whos) const;
    const KeyIndex& indexOf(const RuleIndexes& rules) const;

    PolicyContent mContent;
    KeyIndex mTies;
    mutable std::map<RuleIndexes, std::unique_ptr<const KeyIndex>> mIndexes;
    mutable std::map<std::vector<uint16_t>, std::unique_ptr<const PolicyClass>> mClasses;
};

#endif
