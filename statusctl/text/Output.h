#ifndef STATUSCTL_TEXT_OUTPUT_H
#define STATUSCTL_TEXT_OUTPUT_H

#include <json/value.h>
#include <string>

#include "statusctl/base/Settings.h"
#include "statusmanager/StatusTypes.h"

/// Standard output: whole lines, flushed one by one, so that a reader at the other end of a pipe has them at
/// once. Ends the process silently by SIGPIPE when that reader has gone.
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

    /// @throws Failure if it cannot be written
    void line(const std::string& text);

    /// An object on a line of its own, whatever the style.
    void streamed(const Json::Value& value);

    /// In the style that was asked for.
    void json(const Json::Value& value);

    /// KEY=VALUE lines, or the object of JsonText::ofValues().
    void values(const StatusMap& values);

    void number(const std::string& name, uint64_t number);

    /// The text in this colour if colours are wanted.
    std::string colored(const std::string& text, Color color) const;

    bool isTerminal() const { return mIsTerminal; }

private:
    const Settings& mSettings;
    const bool mIsTerminal;
};

#endif
