#ifndef BROKER_POLICYOPTION_H
#define BROKER_POLICYOPTION_H

#include <memory>
#include <string>

#include "broker/policy/Policy.h"

/// The policy that the option names.
/// @param path of a file or a folder; empty: everything is allowed
/// @throws ConfigError with a line for each mistake, and if the broker could not enforce it
std::unique_ptr<const Policy> readPolicy(const std::string& path);

#endif
