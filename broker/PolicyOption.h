#ifndef BROKER_POLICYOPTION_H
#define BROKER_POLICYOPTION_H

#include <memory>
#include <string>

#include "broker/policy/Policy.h"

/// Reads the policy that the option names.
/// @param path a file or a folder; empty: everything is allowed
/// @throws ConfigError with a line for each error, or if the broker could not enforce the policy
std::unique_ptr<const Policy> readPolicy(const std::string& path);

#endif
