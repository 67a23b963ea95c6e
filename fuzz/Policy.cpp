// Fuzzes policy files. The policy must decide exactly as if all its rules were tried one by one.

#include <algorithm>
#include <vector>

#include "broker/policy/PolicyFiles.h"
#include "fuzz/Fuzz.h"

namespace
{

// Some names exist, others do not.
std::optional<unsigned> lookUp(const std::string& name)
{
    constexpr unsigned ids = 10;
    return name.size() % 2 == 0 ? std::nullopt : std::optional(static_cast<unsigned>(name.size()) % ids);
}

bool matches(const Glob& glob, const std::string& name)
{
    const std::size_t length = glob.literal().size();
    return name.compare(0, length, glob.literal()) == 0 &&
           (glob.rest().empty() ? name.size() == length : Glob::matches(glob.rest(), name.substr(length)));
}

bool matches(const PolicyRule& rule, Action action, const std::string& name)
{
    return rule.actions.has(action) &&
           (rule.names.empty() || std::any_of(rule.names.begin(), rule.names.end(),
                                              [&](const Glob& glob) { return matches(glob, name); }));
}

bool decideNaively(const PolicyContent& content, const Subject& subject, Action action,
                   const std::string& name)
{
    const auto first =
        std::find_if(content.rules.begin(), content.rules.end(),
                     [&](const PolicyRule& rule)
                     { return content.whos[rule.who].has(subject) && matches(rule, action, name); });
    return first->isAllowed; // the default is the last rule
}

// Names from the policy and similar names.
std::vector<std::string> namesFor(const PolicyContent& content)
{
    constexpr std::size_t enough = 50;
    std::vector<std::string> names{"", "a", "net.state"};
    for (const PolicyRule& rule : content.rules)
    {
        for (const Glob& glob : rule.names)
        {
            if (names.size() >= enough)
                return names;
            names.push_back(glob.literal());
            names.push_back(glob.literal() + glob.rest());
            names.push_back(glob.text() + "x");
        }
    }
    return names;
}

void requireSameDecisions(const PolicyContent& content, const Policy& policy, const Subject& subject)
{
    for (const std::string& name : namesFor(content))
    {
        for (const Action action : {Action::Post, Action::See, Action::Time})
        {
            const PolicyClass& rights = policy.classOf(subject);
            const bool expected = decideNaively(content, subject, action, name);
            Fuzz::require(rights.decide(action, name).isAllowed == expected,
                          "the index agrees with the rules");
            Fuzz::require(expected || !rights.mayAll(action), "who may do all may do this");
        }
        static_cast<void>(policy.tieFor(name));
    }
    Fuzz::require(!policy.explain(subject, Action::Post, "a").empty(), "a decision has a reason");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    // Two files; a line "---" separates them.
    const std::string text = Fuzz::textOf(data, size);
    const std::size_t cut = std::min(text.find("\n---\n"), text.size());
    const std::vector<PolicySource> sources{{"file", text.substr(0, cut)},
                                            {"file", text.substr(std::min(cut + 5, text.size()))}};
    const PolicyNames names{lookUp, lookUp};
    const LoadedPolicy loaded = makePolicy(sources, names);
    Fuzz::require((loaded.policy == nullptr) == !loaded.errors.empty(),
                  "there is a policy or there are errors");
    for (const std::string& error : loaded.errors)
    {
        Fuzz::require(error.rfind("file:", 0) == 0 || error.rfind("and ", 0) == 0, "an error names the file");
        Fuzz::require(
            std::none_of(error.begin(), error.end(), [](char letter) { return letter >= 0 && letter < ' '; }),
            "an error is one line");
    }
    if (loaded.policy == nullptr)
        return 0;
    std::vector<std::string> errors;
    const PolicyContent content = readPolicy(sources, names, errors);
    for (const Subject& subject : {Subject{}, Subject{1, {3, 5}, "net.service"}, Subject{3, {}, ""}})
        requireSameDecisions(content, *loaded.policy, subject);
    Fuzz::require(!loaded.policy->describe().empty(), "a policy has lines");
    static_cast<void>(loaded.policy->quotaFor(3));
    return 0;
}
