#ifndef BROKER_POLICY_POLICYTEXT_H
#define BROKER_POLICY_POLICYTEXT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// A text or an error, with its line in a file.
struct PolicyWord
{
    std::string text;
    std::size_t line;
};

/// Whether the text holds a character below the blank, or DEL.
bool hasControl(std::string_view text);

/// Checks a file for control characters and long lines, before the TOML library reads it. The library nests a
/// table for each dot in a key such as "a.a.a.a". When it frees them, it uses stack for each.
std::vector<PolicyWord> errorsInPolicyText(std::string_view text);

#endif
