#ifndef STATUSCTL_TEXT_INPUT_H
#define STATUSCTL_TEXT_INPUT_H

/// Files and standard input, as commands name them.

#include <string>

namespace Input
{

/// All of standard input; Failure if it cannot be read.
std::string all();

/// All of a file, or of standard input if the name is "-"; Failure if it cannot be read.
std::string all(const std::string& fileName);

} // namespace Input

#endif
