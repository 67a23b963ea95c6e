#ifndef BROKER_CONFIGFILE_H
#define BROKER_CONFIGFILE_H

#include <stdexcept>
#include <string>

#include "broker/Options.h"

/// A mistake in a configuration file, in one line: "FILE:LINE: reason", or "FILE: reason" if it is not about
/// one line.
class ConfigError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Reads a configuration: lines of "name = value", with the names of the option table. Empty lines are
/// ignored, and what follows a # at the beginning of a line or after a blank. Limits that contradict each
/// other are not refused, since the command line may change one of them. Throws ConfigError.
/// @param fileName to be named in errors
Options parseConfig(const std::string& text, const std::string& fileName);

/// Reads the configuration in a file of at most 64 KiB. Never waits for a file, as a pipe would make it.
/// Throws ConfigError.
Options readConfigFile(const std::string& fileName);

#endif
