#ifndef BROKER_POLICY_POLICYREADER_H
#define BROKER_POLICY_POLICYREADER_H

#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "broker/policy/PolicyContent.h"

/// Looks up the numbers of users and groups.
struct PolicyNames
{
    std::function<std::optional<uid_t>(const std::string& name)> user;
    std::function<std::optional<gid_t>(const std::string& name)> group;
};

/// One file of a policy.
struct PolicySource
{
    std::string name; ///< for error messages, and for the reasons of decisions
    std::string text;
};

/// The limits of a policy's files.
namespace PolicyLimits
{

constexpr std::size_t fileBytes = std::size_t{256} * 1024;
constexpr std::size_t lineBytes = 1024;
constexpr std::size_t files = 64;
constexpr std::size_t tables = 4096; ///< rules, quotas and ties, in all files together
constexpr std::size_t names = 16384; ///< of clients and of keys, in all files together
constexpr std::size_t errors = 100;  ///< further errors are only counted

} // namespace PolicyLimits

/// Reads the files of a policy, in their order. Throws nothing but std::bad_alloc.
/// @param errors receives "FILE:LINE: reason" for each error, in the order of files and lines. If there is
///     any, the result must not be used.
PolicyContent readPolicy(const std::vector<PolicySource>& sources, const PolicyNames& names,
                         std::vector<std::string>& errors);

#endif
