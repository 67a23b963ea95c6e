#ifndef TESTS_SUPPORT_TRACELINES_H
#define TESTS_SUPPORT_TRACELINES_H

#include <initializer_list>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/LogCapture.h"

/// A line that an operation logs, and the kind of thread that logs it.
struct TraceLine
{
    enum class By
    {
        Manager,
        Caller,
        NotifyThread
    };

    std::string function;
    std::string text;
    int level;
    By by;

    friend bool operator==(const TraceLine& a, const TraceLine& b)
    {
        return a.function == b.function && a.text == b.text && a.level == b.level && a.by == b.by;
    }

    friend std::ostream& operator<<(std::ostream& stream, const TraceLine& line)
    {
        constexpr const char* names[]{"manager", "caller", "notify thread"};
        return stream << "\n  " << names[static_cast<int>(line.by)] << ' ' << line.level << ' '
                      << line.function << ": " << line.text;
    }
};

using TraceLines = std::vector<TraceLine>;

/// Joins lists of lines.
inline TraceLines inARow(std::initializer_list<TraceLines> pieces)
{
    TraceLines all;
    for (const TraceLines& piece : pieces)
        all.insert(all.end(), piece.begin(), piece.end());
    return all;
}

/// The lines of a trace scope, around the lines logged inside it.
inline TraceLines scope(const std::string& function, const TraceLines& inside = {},
                        TraceLine::By by = TraceLine::By::Manager, int level = 7)
{
    return inARow({{{function, "begin", level, by}}, inside, {{function, "end", level, by}}});
}

/// The line of a message.
inline TraceLines message(int level, const std::string& function, const std::string& text,
                          TraceLine::By by = TraceLine::By::Manager)
{
    return {{function, text, level, by}};
}

/// The lines of one thread. Two threads log side by side in no fixed order.
inline TraceLines linesBy(TraceLine::By by, const TraceLines& all)
{
    TraceLines of;
    for (const TraceLine& line : all)
    {
        if (line.by == by)
            of.push_back(line);
    }
    return of;
}

/// The lines that one thread has logged, labelled as lines of `by`.
inline TraceLines loggedOn(std::thread::id thread, TraceLine::By by, const LogCapture& log)
{
    TraceLines of;
    for (const LogLine& line : log.lines())
    {
        if (line.thread == thread)
            of.push_back({line.function, line.text, line.level, by});
    }
    return of;
}

/// The same lines, all labelled as lines of `by`.
inline TraceLines allBy(TraceLine::By by, TraceLines all)
{
    for (TraceLine& line : all)
        line.by = by;
    return all;
}

#endif
