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
    std::thread::id thread; ///< the thread that logged it
};

/// While it lives, it captures log messages that would go to stderr, under these control words (see
/// ov_log_configure(); by default messages up to level 5 and no trace scopes). One at a time. The destructor
/// restores the initial control words.
class LogCapture
{
public:
    explicit LogCapture(const std::string& rules = "*=5:ffffffff");
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    void clear();

    /// The number of lines with exactly this text and level.
    std::size_t count(int level, const std::string& text) const;
    bool has(int level, const std::string& text) const { return count(level, text) != 0; }

    /// Waits for such lines. Returns false at the deadline.
    bool waitFor(int level, const std::string& text, std::size_t times = 1) const;

    /// The texts of the lines up to `maxLevel`, in order.
    std::vector<std::string> texts(int maxLevel = 7) const;
};

#endif
