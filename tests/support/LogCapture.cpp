#include "tests/support/LogCapture.h"

#include <algorithm>
#include <mutex>

#include "common/Logging.h"
#include "tests/support/Wait.h"

namespace
{

// Never destroyed: a thread that was logging when a capture ended may still use it.
struct Captured
{
    std::mutex mutex;
    std::vector<LogLine> lines;
    bool active = false;
};

Captured& captured()
{
    static auto* instance = new Captured;
    return *instance;
}

void capture(const ov_log_record* record, void*)
{
    const std::lock_guard<std::mutex> lock(captured().mutex);
    if (captured().active)
        captured().lines.push_back({record->level, record->function, record->file, record->line,
                                    record->indent, record->text, std::this_thread::get_id()});
}

void setActive(bool active)
{
    const std::lock_guard<std::mutex> lock(captured().mutex);
    captured().active = active;
    captured().lines.clear();
}

} // namespace

LogCapture::LogCapture(const std::string& rules)
{
    ov_log_configure(rules.c_str());
    setActive(true);
    ov_log_set_sink(capture, nullptr);
}

LogCapture::~LogCapture()
{
    ov_log_set_sink(nullptr, nullptr);
    setActive(false);
    ov_log_configure("*=5:ffffffff");
}

std::vector<LogLine> LogCapture::lines() const
{
    const std::lock_guard<std::mutex> lock(captured().mutex);
    return captured().lines;
}

void LogCapture::clear()
{
    const std::lock_guard<std::mutex> lock(captured().mutex);
    captured().lines.clear();
}

std::size_t LogCapture::count(int level, const std::string& text) const
{
    const std::vector<LogLine> all = lines();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(),
                                                  [&](const LogLine& line)
                                                  { return line.level == level && line.text == text; }));
}

bool LogCapture::waitFor(int level, const std::string& text, std::size_t times) const
{
    return eventually([&] { return count(level, text) >= times; });
}

std::vector<std::string> LogCapture::texts(int maxLevel) const
{
    std::vector<std::string> result;
    for (const LogLine& line : lines())
    {
        if (line.level <= maxLevel)
            result.push_back(line.text);
    }
    return result;
}
