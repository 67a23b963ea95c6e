#ifndef STATUSCTL_TEXT_OUTPUT_H
#define STATUSCTL_TEXT_OUTPUT_H

#include <json/value.h>
#include <string>

#include "statusctl/base/Settings.h"
#include "statusmanager/StatusTypes.h"

/// Standard output in whole lines. Each line is flushed, so that the reader of a pipe gets it at once. If the
/// reader has gone, SIGPIPE ends the process silently.
class Output
{
public:
    explicit Output(const Settings& settings);

    enum class Color
    {
        None,
        Dim,
        Green,
        Yellow,
        Red,
    };

    /// @throws Failure if the line cannot be written
    void line(const std::string& text);

    /// Prints an object on its own line, in any style.
    void streamed(const Json::Value& value);

    /// Prints a value in the chosen style.
    void json(const Json::Value& value);

    /// Prints KEY=VALUE lines, or the object of JsonText::ofValues().
    void values(const StatusMap& values);

    void number(const std::string& name, uint64_t number);

    /// The text in this colour, if colours are wanted.
    std::string colored(const std::string& text, Color color) const;

    bool isTerminal() const { return mIsTerminal; }

private:
    const Settings& mSettings;
    const bool mIsTerminal;
};

#endif
