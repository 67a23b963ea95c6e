#include "broker/policy/Policy.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace
{

using Order = KeyIndex::Order;

constexpr Order noTie = std::numeric_limits<Order>::max();

// The names of a rule without names: every name.
const std::vector<Glob>& everyName()
{
    static const std::vector<Glob> names{Glob("*")};
    return names;
}

void addEntries(std::vector<KeyIndex::Entry>& entries, const std::vector<Glob>& names, std::size_t order)
{
    for (const Glob& glob : names.empty() ? everyName() : names)
        entries.push_back({&glob, static_cast<Order>(order)});
}

KeyIndex indexOfTies(const std::vector<PolicyTie>& ties)
{
    std::vector<KeyIndex::Entry> entries;
    for (std::size_t i = 0; i < ties.size(); ++i)
        addEntries(entries, ties[i].names, i);
    return KeyIndex(std::move(entries));
}

// Finds rules that never decide, because earlier rules always do. It compares a rule only with earlier rules
// for the same clients or anyone, and the same names or every name. So it may miss some.
class Reachability
{
public:
    // Returns the place of the last of the earlier rules that leave nothing; empty if something is left.
    std::string add(const PolicyRule& rule, const std::string& who)
    {
        const std::string names = rule.isForEveryName() ? std::string() : textOf(rule.names);
        Actions left = rule.actions;
        std::string last;
        for (const auto& key : {Key{"", ""}, Key{"", names}, Key{who, ""}, Key{who, names}})
        {
            const auto earlier = mDecided.find(key);
            if (earlier == mDecided.end() || left.without(earlier->second.actions) == left)
                continue;
            left = left.without(earlier->second.actions);
            last = earlier->second.place;
        }
        Decided& decided = mDecided[Key{who, names}];
        decided.actions.add(rule.actions);
        decided.place = rule.place;
        return left.isEmpty() ? last : std::string();
    }

private:
    using Key = std::pair<std::string, std::string>; // clients, empty for anyone; names, empty for every name

    struct Decided
    {
        Actions actions;
        std::string place;
    };

    std::map<Key, Decided> mDecided;
};

void warnOfUnreachable(PolicyContent& content)
{
    Reachability reachability;
    for (std::size_t i = 0; i + 1 < content.rules.size(); ++i)
    {
        const PolicyRule& rule = content.rules[i];
        const std::string by =
            reachability.add(rule, rule.who == 0 ? std::string() : content.whos[rule.who].text);
        if (!by.empty())
            content.warnings.push_back(
                rule.place + ": the rule never decides: earlier rules always do, the last of them at " + by);
    }
}

} // namespace

std::vector<std::string>& Policy::none()
{
    static std::vector<std::string> errors; // stays empty, as no files are read
    return errors;
}

Policy::Policy(PolicyContent content) : mContent(std::move(content)), mTies(indexOfTies(mContent.ties))
{
    warnOfUnreachable(mContent);
}

const PolicyClass& Policy::classOf(const Subject& subject) const
{
    std::vector<uint16_t> whos;
    for (std::size_t i = 0; i < mContent.whos.size(); ++i)
    {
        if (mContent.whos[i].has(subject))
            whos.push_back(static_cast<uint16_t>(i));
    }
    auto known = mClasses.find(whos);
    if (known == mClasses.end())
    {
        auto made = makeClass(whos);
        known = mClasses.emplace(std::move(whos), std::move(made)).first;
    }
    return *known->second;
}

std::unique_ptr<const PolicyClass> Policy::makeClass(const std::vector<uint16_t>& whos) const
{
    auto made = std::make_unique<PolicyClass>();
    made->mRules = mContent.rules.data();
    made->mDefault = static_cast<Order>(mContent.rules.size() - 1);
    for (std::size_t i = 0; i < actionCount; ++i)
    {
        const auto action = static_cast<Action>(i);
        RuleIndexes rules;
        bool isDenied = false;
        bool isAllowed = false;
        for (std::size_t j = 0; j < mContent.rules.size(); ++j)
        {
            const PolicyRule& rule = mContent.rules[j];
            if (!rule.actions.has(action) || !std::binary_search(whos.begin(), whos.end(), rule.who))
                continue;
            rules.push_back(static_cast<Order>(j));
            isDenied = isDenied || !rule.isAllowed;
            isAllowed = isAllowed || rule.isAllowed;
            if (rule.isForEveryName())
                break; // no later rule ever decides
        }
        made->mIndexes[i] = &indexOf(rules);
        if (!isDenied)
            made->mFree.add(action);
        if (!isAllowed)
            made->mBarred.add(action);
    }
    return made;
}

// Many actions have the same rules, and so do many classes.
const KeyIndex& Policy::indexOf(const RuleIndexes& rules) const
{
    std::unique_ptr<const KeyIndex>& index = mIndexes[rules];
    if (index == nullptr)
    {
        std::vector<KeyIndex::Entry> entries;
        for (const Order rule : rules)
            addEntries(entries, mContent.rules[rule].names, rule);
        index = std::make_unique<const KeyIndex>(std::move(entries));
    }
    return *index;
}

const PolicyTie* Policy::tieFor(std::string_view key) const
{
    const Order tie = mTies.find(key, noTie);
    return tie == noTie ? nullptr : &mContent.ties[tie];
}

const PolicyQuota* Policy::quotaFor(std::optional<uid_t> user) const
{
    const auto own = std::find_if(mContent.userQuotas.begin(), mContent.userQuotas.end(),
                                  [&](const PolicyContent::UserQuota& each) { return each.user == user; });
    if (own != mContent.userQuotas.end())
        return &mContent.quotas[own->quota];
    return mContent.usualQuota ? &mContent.quotas[*mContent.usualQuota] : nullptr;
}

// ---------------------------------------------------------------------------------------------- for people

// Caches nothing: made-up subjects would otherwise fill the memory.
Decision Policy::decideOnce(const Subject& subject, Action action, std::string_view name) const
{
    const auto decides = [&](const PolicyRule& rule)
    {
        return rule.actions.has(action) && mContent.whos[rule.who].has(subject) &&
               (rule.isForEveryName() || std::any_of(rule.names.begin(), rule.names.end(),
                                                     [&](const Glob& glob) { return glob.matches(name); }));
    };
    const PolicyRule& rule = *std::find_if(mContent.rules.begin(), mContent.rules.end() - 1, decides);
    return {rule.isAllowed, &rule};
}

std::string Policy::explain(const Subject& subject, Action action, std::string_view name) const
{
    const auto [isAllowed, rule] = decideOnce(subject, action, name);
    std::string text = isAllowed ? "allowed by " : "denied by ";
    if (rule != &mContent.rules.back())
        text += rule->place + ": " + mContent.whos[rule->who].text + ": " + rule->text();
    else if (rule->place.empty())
        text += "the default, as no rule matches";
    else
        text += "the default in " + rule->place + ", as no rule matches";
    if (!isAllowed && mContent.isAudit)
        text += " (only logged: mode is audit in " + mContent.modePlace + ")";
    return text;
}

bool Policy::namesGroups() const
{
    return std::any_of(mContent.whos.begin(), mContent.whos.end(),
                       [](const Who& who) { return who.namesGroups; });
}

bool Policy::namesServices() const
{
    return std::any_of(mContent.whos.begin(), mContent.whos.end(),
                       [](const Who& who) { return who.namesServices; });
}

std::string Policy::describe() const
{
    const auto placed = [](const std::string& place, const std::string& text)
    { return text + (place.empty() ? "" : " (" + place + ")") + "\n"; };
    const PolicyRule& last = mContent.rules.back();
    std::string text = placed(mContent.modePlace, mContent.isAudit ? "mode: audit" : "mode: enforce");
    text += mContent.rules.size() > 1 ? "rules, the first match decides:\n" : "no rules\n";
    for (std::size_t i = 0; i + 1 < mContent.rules.size(); ++i)
    {
        const PolicyRule& rule = mContent.rules[i];
        text += "  " + rule.place + ": " + mContent.whos[rule.who].text + ": " + rule.text() + "\n";
    }
    text += placed(last.place, last.isAllowed ? "everything else is allowed" : "everything else is denied");
    text += mContent.quotas.empty() ? "" : "quotas:\n";
    for (const PolicyQuota& quota : mContent.quotas)
        text += "  " + quota.place + ": " + quota.text + "\n";
    text += mContent.ties.empty() ? "" : "values that end with their owner:\n";
    for (const PolicyTie& tie : mContent.ties)
    {
        text += "  " + tie.place + ": " + textOf(tie.names) +
                (tie.becomes.empty() ? ": reset " : ": become ") +
                (tie.becomes.empty() ? "" : "\"" + tie.becomes + "\" ") + std::to_string(tie.grace.count()) +
                " ms after it has gone\n";
    }
    text += mContent.warnings.empty() ? "" : "warnings:\n";
    for (const std::string& warning : mContent.warnings)
        text += "  " + warning + "\n";
    return text;
}
