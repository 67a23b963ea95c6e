#ifndef BROKER_CONFIGFILE_H
#define BROKER_CONFIGFILE_H

#include <string>

#include "broker/Options.h"
#include "daemon/ConfigText.h"

/// Reads a configuration: lines of "name = value", with the names of the option table. Ignores empty lines
/// and comments. A comment begins with a # at the beginning of a line or after a blank. Accepts limits that
/// contradict each other, since the command line may change one of them. Throws ConfigError.
/// @param fileName for error messages
Options parseConfig(const std::string& text, const std::string& fileName);

/// Reads the configuration in a file of at most 64 KiB. Never waits for the file: a pipe in its place is an
/// error. Throws ConfigError.
Options readConfigFile(const std::string& fileName);

#endif
