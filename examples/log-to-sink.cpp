// Sends the log of the program and of the library to a sink of its own, here stdout. Exits 0.

#include <algorithm>
#include <cstdio>
#include <string>

#include "common/Logging.h"
#include "statusmanager/StatusManager.h"

// Once per source file that logs, behind the includes and outside any namespace.
OV_LOG_CONTROL_WORDS;

namespace
{

// Every thread that logs calls it, several at once, until the process ends. So everything it uses must be
// thread-safe and never be destroyed. It must not throw. Each fprintf() writes one whole line, even if
// several threads log.
void toStream(const ov_log_record* record, void* stream) noexcept
{
    constexpr int longest = 200;
    char text[longest + 1];
    std::snprintf(text, sizeof(text), "%s", record->text);
    // Messages may quote foreign input, which could forge lines without this.
    const auto isControl = [](char byte) { return static_cast<unsigned char>(byte) < ' '; };
    std::replace_if(text, text + std::char_traits<char>::length(text), isControl, '?');
    const char* file = record->file[0] == '/' ? record->file + 1 : record->file;
    std::fprintf(static_cast<FILE*>(stream), "level %d, %s: %s\n", record->level, file, text);
}

} // namespace

int main()
{
    ov_log_set_sink(toStream, stdout);

    // Up to level 6 from this file. The library's own files stay at 5.
    if (ov_log_configure("log-to-sink=6") != 0)
        return 1;
    OV_LOG(6, "asking for a broker");
    OV_LOG(7, "this is not printed, and %s is not called", "an argument");

    StatusManager* manager = StatusManager::getInstance(false); // logs when a broker has answered
    OV_LOG(6, "the device holds %zu values", manager->getClientInfo().size());
    return 0;
}
