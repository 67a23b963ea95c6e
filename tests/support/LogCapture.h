#ifndef TESTS_SUPPORT_LOGCAPTURE_H
#define TESTS_SUPPORT_LOGCAPTURE_H

#include <string>
#include <thread>
#include <vector>

/// One captured message.
struct LogLine
{
    int level;
    std::string function;
    std::string file;
    int line;
    int indent;
    std::string text;
    std::thread::id thread; ///< that logged it
};

/// While it lives, log messages go here instead of to stderr, and the control words are as `rules` say (see
/// ov_log_configure(); by default messages up to level 5 and no trace scopes). One at a time. Afterwards the
/// control words are back at their initial values.
class LogCapture
{
public:
    explicit LogCapture(const std::string& rules = "*=5:ffffffff");
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    void clear();

    /// How many lines have exactly this text, at this level.
    std::size_t count(int level, const std::string& text) const;
    bool has(int level, const std::string& text) const { return count(level, text) != 0; }

    /// Waits for such a line; false at the deadline.
    bool waitFor(int level, const std::string& text, std::size_t times = 1) const;

    /// The texts only, in order, of the lines at `maxLevel` and below.
    std::vector<std::string> texts(int maxLevel = 7) const;
};

#endif
