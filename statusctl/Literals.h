#ifndef STATUSCTL_LITERALS_H
#define STATUSCTL_LITERALS_H

#include <string>
#include <vector>

/// Marks for arguments that CLI11 must not interpret.
namespace Literals
{

/// Marks the arguments behind "--", and removes the "--". CLI11 would ignore it behind the first positional.
/// Also marks arguments that begin with "[", because CLI11 splits "[a,b]" into several arguments.
std::vector<std::string> mark(std::vector<std::string> arguments);

std::string withoutMark(std::string text);

} // namespace Literals

#endif
