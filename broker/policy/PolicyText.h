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

/// Looks through a file before the TOML library does, for what the library would not stand: each of these is
/// an error of TOML as well, or has no use in a policy.
///  - Long lines. A key of dots, "a.a.a.a", makes a table in a table for each dot, and the library takes
///  stack for each
///    when it lets go of them.
///  - Control characters.
///  - Letters beyond ASCII outside of quotes and comments, for some of which the library's behaviour is
///  undefined.
std::vector<PolicyWord> errorsInPolicyText(std::string_view text);

#endif
