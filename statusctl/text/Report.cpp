#include "statusctl/text/Report.h"

#include <cstdio>
#include <cstdlib>
#include <json/value.h>
#include <mutex>

#include "statusctl/base/Ending.h"
#include "statusctl/text/Json.h"
#include "statusctl/text/Text.h"

namespace
{

Json::Value listOf(const std::vector<std::string>& texts)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& text : texts)
        list.append(Text::valid(text));
    return list;
}

} // namespace

void report(const Settings& settings, const Failure& failure)
{
    std::string line;
    if (settings.isJson())
    {
        Json::Value error(Json::objectValue);
        error["verb"] = settings.verb;
        error["code"] = static_cast<int>(failure.code());
        error["reason"] = Text::valid(failure.what());
        for (const auto& [name, texts] : failure.lists())
            error[name] = listOf(texts);
        Json::Value root(Json::objectValue);
        root["error"] = error;
        line = JsonText::write(root, Settings::Json::Short);
    }
    else
    {
        line = settings.program + ": " + (settings.verb.empty() ? "" : settings.verb + ": ") +
               Text::escaped(failure.what());
    }
    std::fprintf(stderr, "%s\n", line.c_str());
}

void leaveWith(const Settings& settings, const Failure& failure)
{
    static std::mutex& leaving = *new std::mutex; // never unlocked: the first caller ends the process
    leaving.lock();
    restoreBeforeLeaving();
    report(settings, failure);
    std::quick_exit(static_cast<int>(failure.code()));
}
