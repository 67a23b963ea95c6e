#ifndef TESTS_BROKER_POLICY_POLICYFIXTURE_H
#define TESTS_BROKER_POLICY_POLICYFIXTURE_H

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "broker/policy/PolicyFiles.h"

/// Helpers for tests of policies.

using Lines = std::vector<std::string>;

constexpr uid_t netUser = 101;
constexpr uid_t webUser = 102;
constexpr gid_t netGroup = 201;
constexpr gid_t operatorsGroup = 202;

/// A device with a few users and groups.
inline PolicyNames deviceNames()
{
    const auto lookUp = [](const std::map<std::string, unsigned>& numbers)
    {
        return [numbers](const std::string& name) -> std::optional<unsigned>
        {
            const auto place = numbers.find(name);
            return place == numbers.end() ? std::nullopt : std::optional(place->second);
        };
    };
    return {lookUp({{"root", 0}, {"net", netUser}, {"web", webUser}}),
            lookUp({{"net", netGroup}, {"operators", operatorsGroup}})};
}

using PolicyPointer = std::unique_ptr<const Policy>;

inline PolicyPointer policyOf(const std::vector<PolicySource>& sources)
{
    LoadedPolicy loaded = makePolicy(sources, deviceNames());
    if (loaded.policy == nullptr)
        throw std::logic_error(loaded.errors.front());
    return std::move(loaded.policy);
}

inline PolicyPointer policyOf(const std::string& text)
{
    return policyOf(std::vector<PolicySource>{{"file", text}});
}

inline Lines errorsOf(const std::vector<PolicySource>& sources)
{
    LoadedPolicy loaded = makePolicy(sources, deviceNames());
    if ((loaded.policy == nullptr) == loaded.errors.empty())
        throw std::logic_error("either a policy or errors");
    return std::move(loaded.errors);
}

inline Lines errorsOf(const std::string& text)
{
    return errorsOf(std::vector<PolicySource>{{"file", text}});
}

inline Subject userSubject(uid_t user, std::vector<gid_t> groups = {}, std::string service = {})
{
    return {user, std::move(groups), std::move(service)};
}

inline Subject serviceSubject(std::string service)
{
    constexpr uid_t anyUser = 999;
    return {anyUser, {}, std::move(service)};
}

inline bool may(const Policy& policy, const Subject& subject, Action action, std::string_view name = {})
{
    return policy.classOf(subject).decide(action, name).isAllowed;
}

#endif
