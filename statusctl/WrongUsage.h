#ifndef STATUSCTL_WRONGUSAGE_H
#define STATUSCTL_WRONGUSAGE_H

#include <CLI/CLI.hpp>
#include <string>

/// What is wrong with the command line, in one line. Replaces the texts of CLI11, which are made for
/// programmers.
namespace WrongUsage
{

/// @param app  the program, or the command that the error is about
/// @param name of the command; empty for the program
std::string reasonOf(const CLI::ParseError& error, const CLI::App& app, const std::string& name);

} // namespace WrongUsage

#endif
