#include "statusctl/text/Output.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "statusctl/base/Ending.h"
#include "statusctl/base/Failure.h"
#include "statusctl/text/Json.h"
#include "statusctl/text/Text.h"

Output::Output(const Settings& settings) : mSettings(settings), mIsTerminal(isatty(STDOUT_FILENO) != 0) {}

void Output::line(const std::string& text)
{
    const bool isWritten = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
                           std::fputc('\n', stdout) != EOF && std::fflush(stdout) == 0;
    if (!isWritten && errno == EPIPE)
        endBy(SIGPIPE); // the default action alone would not end a thread that blocks it
    if (!isWritten)
        throw Failure(ExitCode::Failed, std::string("cannot write: ") + std::strerror(errno));
}

void Output::streamed(const Json::Value& value)
{
    line(JsonText::write(value, Settings::Json::Short));
}

void Output::json(const Json::Value& value)
{
    line(JsonText::write(value, mSettings.json));
}

void Output::values(const StatusMap& values)
{
    if (mSettings.isJson())
        return json(JsonText::ofValues(values));
    for (const auto& [key, value] : values)
        line(Text::escapedName(key) + "=" + Text::escaped(value));
}

void Output::number(const std::string& name, uint64_t number)
{
    if (!mSettings.isJson())
        return line(std::to_string(number));
    Json::Value object(Json::objectValue);
    object[name] = static_cast<Json::UInt64>(number);
    json(object);
}

std::string Output::colored(const std::string& text, Color color) const
{
    if (!mSettings.color || color == Color::None)
        return text;
    const char* code = color == Color::Dim      ? "2"
                       : color == Color::Green  ? "32"
                       : color == Color::Yellow ? "33"
                                                : "31";
    return std::string("\x1b[") + code + "m" + text + "\x1b[0m";
}
