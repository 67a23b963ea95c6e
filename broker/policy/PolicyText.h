#ifndef BROKER_POLICY_POLICYTEXT_H
#define BROKER_POLICY_POLICYTEXT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// A text in a line of a file: what stands there, or what is wrong.
struct PolicyWord
{
    std::string text;
    std::size_t line;
};

/// Below the blank, or DEL.
bool hasControl(std::string_view text);

/// Looks through a file before the TOML library does, for control characters and long lines. A key of dots,
/// "a.a.a.a", makes a table in a table for each dot, and the library takes stack for each when it lets go of
/// them.
std::vector<PolicyWord> errorsInPolicyText(std::string_view text);

#endif
