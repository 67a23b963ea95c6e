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

/// The rules of a policy that apply to one kind of client.
class PolicyClass
{
public:
    /// Decides by the first rule that names the action and matches the name. Rules are ordered by file name,
    /// then by their place in the file. Allocates nothing.
    /// @param name of the key, event, timer or counter; empty for Action::Time
    Decision decide(Action action, std::string_view name) const
    {
        const std::size_t rule = mIndexes[static_cast<std::size_t>(action)]->find(name, mDefault);
        return {mRules[rule].isAllowed, mRules + rule};
    }

    /// Whether the action is allowed for every name.
    bool mayAll(Action action) const { return mFree.has(action); }

    /// Whether the action is denied for every name.
    bool mayNothing(Action action) const { return mBarred.has(action); }

private:
    friend class Policy;

    std::array<const KeyIndex*, actionCount> mIndexes{};
    const PolicyRule* mRules = nullptr;
    KeyIndex::Order mDefault = 0;
    Actions mFree;
    Actions mBarred;
};

/// Which client may do what with which names; see packaging/example.policy for the files. It never changes:
/// changed files make a new policy, and everything that this one returned dies with it.
///
/// For one thread only, since classOf() caches its results.
class Policy
{
public:
    /// Allows everything.
    Policy() : Policy(readPolicy({}, {}, none())) {}

    explicit Policy(PolicyContent content);
    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;
    ~Policy() = default;

    /// The rules for such a client. Clients to which the same rules apply share one class. So the number of
    /// classes depends on the policy, not on its clients. Valid as long as the policy.
    const PolicyClass& classOf(const Subject& subject) const;

    /// The same decision for a subject that need not be a client. Takes time in proportion to the policy.
    Decision decideOnce(const Subject& subject, Action action, std::string_view name) const;

    /// Whether refusals are only logged, and nothing is refused.
    bool isAudit() const { return mContent.isAudit; }

    /// Whether some rules do not apply to everyone, or users have quotas. Then the policy cannot decide about
    /// a client whose user is unknown.
    bool tellsClientsApart() const { return mContent.whos.size() > 1 || hasQuotas(); }

    /// Whether some rules are about services, or groups.
    bool namesServices() const;
    bool namesGroups() const;

    /// How many rules there are, without the default.
    std::size_t rules() const { return mContent.rules.size() - 1; }

    /// Whether some users have quotas.
    bool hasQuotas() const { return !mContent.quotas.empty(); }

    /// The rule for a value whose last poster has gone. Null if there is none: the value stays.
    const PolicyTie* tieFor(std::string_view key) const;

    /// Whether some values end with their owner.
    bool hasTies() const { return !mContent.ties.empty(); }

    /// The quota of a user. Null if the user has none.
    /// @param user nothing if unknown: then the quota for each user without its own applies
    const PolicyQuota* quotaFor(std::optional<uid_t> user) const;

    /// The decision and its reason, in one line for people.
    std::string explain(const Subject& subject, Action action, std::string_view name) const;

    /// The whole policy, in lines for people.
    std::string describe() const;

    /// Lines of the files that are valid, but probably mistakes; "FILE:LINE: ...".
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
