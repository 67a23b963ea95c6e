#ifndef DAEMON_CONFIGTEXT_H
#define DAEMON_CONFIGTEXT_H

#include <functional>
#include <stdexcept>
#include <string>

/// A mistake in a configuration file, in one line: "FILE:LINE: reason", or "FILE: reason" if it concerns no
/// single line.
class ConfigError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The daemons' configuration files: lines of "name = value".
namespace ConfigText
{

/// Reports one line. May throw std::runtime_error, with the mistake in the line.
using Take = std::function<void(const std::string& name, const std::string& value)>;

/// Calls `take` for each line. Ignores empty lines and comments. A comment begins with a # at the beginning
/// of a line or after a blank. The value may be empty. Throws ConfigError.
/// @param fileName for error messages
void read(const std::string& text, const std::string& fileName, const Take& take);

/// Returns the content of a file of at most 64 KiB. Never waits for the file: a pipe in its place is an
/// error. Throws ConfigError.
std::string readFile(const std::string& fileName);

} // namespace ConfigText

#endif
