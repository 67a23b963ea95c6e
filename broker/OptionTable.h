#ifndef BROKER_OPTIONTABLE_H
#define BROKER_OPTIONTABLE_H

#include <functional>
#include <string>
#include <vector>

#include "broker/Options.h"

/// An option as the command line and the configuration file know it.
struct OptionEntry
{
    enum class Kind
    {
        Flag, ///< "true" or "false"; on the command line its name alone means "true"
        Single,
        Repeatable, ///< the values add up
    };

    /// Returns the error in a value, in one line; empty if there is none.
    using Check = std::function<std::string(const std::string& value)>;

    /// Sets the option. All values must have passed the check; several are allowed only where they add up.
    using Set = std::function<void(Options& options, const std::vector<std::string>& values)>;

    std::string name; ///< without dashes
    Kind kind;
    std::string unit;    ///< of its value, for the help; empty for a flag
    std::string range;   ///< "1..1000000"; empty if the unit says enough
    std::string initial; ///< the default; empty if there is none
    std::string text;    ///< for the help
    Check check;
    Set set;
};

/// All options except those that only the command line has.
const std::vector<OptionEntry>& optionTable();

/// The contradiction between limits that are valid one by one; empty if there is none.
std::string contradictionIn(const Limits& limits);

#endif
