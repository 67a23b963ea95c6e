#ifndef BROKER_POLICY_POLICYFILES_H
#define BROKER_POLICY_POLICYFILES_H

#include <memory>
#include <string>
#include <vector>

#include "broker/policy/Policy.h"

/// A policy, or what is wrong with its files.
struct LoadedPolicy
{
    std::unique_ptr<const Policy> policy; ///< null if there are errors
    std::vector<std::string> errors; ///< "FILE:LINE: reason", or "FILE: reason" if it is not about one line
};

/// Makes a policy of texts, in their order. Throws nothing.
LoadedPolicy makePolicy(const std::vector<PolicySource>& sources, const PolicyNames& names);

/// Makes a policy of a file, or of all files in a folder whose names end with ".policy", in the order of
/// their names, byte by byte. Hidden files are left out. Throws nothing, and waits for nothing, as a pipe
/// would make it.
///
/// Refuses files and folders that others could have written: each must belong to root or to the user of this
/// process, and nobody but the owner may write.
LoadedPolicy loadPolicy(const std::string& path, const PolicyNames& names);

#endif
