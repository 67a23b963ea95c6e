#ifndef STATUSCTL_TEXT_COMPLETIONS_H
#define STATUSCTL_TEXT_COMPLETIONS_H

#include <string>

namespace Completions
{

/// The completion file for a shell: "bash", "zsh" or "fish".
std::string of(const std::string& shell);

} // namespace Completions

#endif
