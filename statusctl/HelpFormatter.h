#ifndef STATUSCTL_HELPFORMATTER_H
#define STATUSCTL_HELPFORMATTER_H

#include <CLI/CLI.hpp>
#include <string>

/// Prints the help for users: without the types of C++, and with what CLI11 does not know.
class HelpFormatter : public CLI::Formatter
{
public:
    std::string make_usage(const CLI::App* app, std::string name) const override;
    std::string make_option_name(const CLI::Option* option, bool isPositional) const override;
    std::string make_option_opts(const CLI::Option* option) const override;
};

#endif
