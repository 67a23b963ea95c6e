#include "tests/statusctl/Tool.h"

Words commandOf(const Words& words)
{
    Words command{"/usr/bin/env", "-u", "OV_LOG", "-u", "NO_COLOR", STATUSCTL};
    command.insert(command.end(), words.begin(), words.end());
    return command;
}

Words inBackground(const Words& words)
{
    Words command{"/bin/sh", "-c", "trap '' INT QUIT; exec \"$@\"", "sh"};
    const Words tool = commandOf(words);
    command.insert(command.end(), tool.begin(), tool.end());
    return command;
}

Outcome statusctl(const Words& words, const std::string& input)
{
    TestProcess process(commandOf(words));
    process.write(input);
    process.closeInput();
    Outcome outcome;
    outcome.output = process.readRest();
    outcome.code = process.waitForExit().value_or(-1);
    outcome.errors = process.errors();
    return outcome;
}

Outcome failure(int code, const std::string& text)
{
    return {code, "", text + "\n"};
}

Outcome success(const std::string& output)
{
    return {0, output, ""};
}

std::string withoutTime(const std::string& line)
{
    const std::size_t blank = line.find(' ');
    return blank == std::string::npos ? line : line.substr(blank + 1);
}

std::string nextLine(TestProcess& process)
{
    const std::optional<std::string> line = process.readLine();
    return line ? withoutTime(*line) : "(nothing)";
}
