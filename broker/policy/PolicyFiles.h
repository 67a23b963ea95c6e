#ifndef BROKER_POLICY_POLICYFILES_H
#define BROKER_POLICY_POLICYFILES_H

#include <memory>
#include <string>
#include <vector>

#include "broker/policy/Policy.h"

/// A policy, or the errors in its files.
struct LoadedPolicy
{
    std::unique_ptr<const Policy> policy; ///< null if there are errors
    std::vector<std::string> errors; ///< "FILE:LINE: reason", or "FILE: reason" if it concerns no single line
};

/// Makes a policy from texts, in their order. Throws nothing.
LoadedPolicy makePolicy(const std::vector<PolicySource>& sources, const PolicyNames& names);

/// Makes a policy from a file, or from all files in a folder whose names end with ".policy". Sorts them by
/// name, byte by byte, and skips hidden files. Throws nothing. Never waits, as opening a pipe would.
///
/// Refuses files and folders that others could have written. Each must belong to root or to the user of this
/// process, and only its owner may have write permission.
LoadedPolicy loadPolicy(const std::string& path, const PolicyNames& names);

#endif
