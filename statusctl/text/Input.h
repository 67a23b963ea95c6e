#ifndef STATUSCTL_TEXT_INPUT_H
#define STATUSCTL_TEXT_INPUT_H

/// Reads files and standard input.

#include <string>

namespace Input
{

/// Returns all of standard input. Throws Failure if it cannot be read.
std::string all();

/// Returns all of a file, or of standard input for "-". Throws Failure if it cannot be read.
std::string all(const std::string& fileName);

} // namespace Input

#endif
