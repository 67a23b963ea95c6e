#include "common/Logging.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <fnmatch.h>
#include <mutex>
#include <new>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

int ov_log_indent = 0;
int ov_log_indent_size = 2;

namespace
{

// ------------------------------------------------------------------------------------------- control words

struct ControlWords
{
    const char* path;
    volatile unsigned int* flags;
    volatile int* level;
};

struct Rule
{
    std::string pattern;
    std::optional<int> level;
    std::optional<unsigned int> flags;
};

bool matchesTail(const std::string& pattern, const std::string& tail)
{
    const std::string stem = tail.substr(0, tail.rfind('.'));
    return fnmatch(pattern.c_str(), tail.c_str(), 0) == 0 || fnmatch(pattern.c_str(), stem.c_str(), 0) == 0;
}

// A pattern may begin at any folder of the path, so that it need not know where the source was compiled.
bool matches(const Rule& rule, const std::string& path)
{
    for (std::size_t start = 0;; ++start)
    {
        if (matchesTail(rule.pattern, path.substr(start)))
            return true;
        start = path.find('/', start);
        if (start == std::string::npos)
            return false;
    }
}

void apply(const Rule& rule, const ControlWords& words)
{
    if (rule.level)
        __atomic_store_n(words.level, *rule.level, __ATOMIC_RELAXED);
    if (rule.flags)
        __atomic_store_n(words.flags, *rule.flags, __ATOMIC_RELAXED);
}

bool parseNumber(const std::string& text, int base, unsigned long& number)
{
    char* end = nullptr;
    errno = 0;
    number = strtoul(text.c_str(), &end, base);
    return !text.empty() && isxdigit(static_cast<unsigned char>(text[0])) != 0 && *end == '\0' && errno == 0;
}

std::optional<Rule> parseRule(const std::string& text)
{
    const std::size_t equals = text.find('=');
    if (equals == 0 || equals == std::string::npos)
        return std::nullopt;

    Rule rule;
    rule.pattern = text.substr(0, equals);
    const std::size_t colon = text.find(':', equals);
    unsigned long number = 0;
    constexpr unsigned long highestLevel = 7;
    if (!parseNumber(text.substr(equals + 1, colon - equals - 1), 10, number) || number > highestLevel)
        return std::nullopt;
    rule.level = static_cast<int>(number);
    if (colon != std::string::npos)
    {
        if (!parseNumber(text.substr(colon + 1), 16, number) || number > 0xFFFFFFFFUL)
            return std::nullopt;
        rule.flags = static_cast<unsigned int>(number);
    }
    return rule;
}

std::optional<std::vector<Rule>> parseRules(const std::string& text)
{
    std::vector<Rule> rules;
    for (std::size_t start = 0; start <= text.size();)
    {
        const std::size_t end = std::min(text.find(',', start), text.size());
        if (end != start)
        {
            const std::optional<Rule> rule = parseRule(text.substr(start, end - start));
            if (!rule)
                return std::nullopt;
            rules.push_back(*rule);
        }
        start = end + 1;
    }
    return rules;
}

class Configuration
{
public:
    // Never destroyed: threads log until the very end of the process.
    static Configuration& instance()
    {
        static auto* configuration = new Configuration;
        return *configuration;
    }

    void add(const ControlWords& words)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mFiles.push_back(words);
        for (const Rule& rule : mRules)
        {
            if (matches(rule, words.path))
                apply(rule, words);
        }
    }

    bool configure(const std::string& text)
    {
        const std::optional<std::vector<Rule>> rules = parseRules(text);
        if (!rules)
            return false;
        // Everything that needs memory comes first, so that nothing has changed when memory runs out.
        const std::lock_guard<std::mutex> lock(mMutex);
        std::vector<Rule> kept = mRules;
        std::vector<std::pair<const Rule*, ControlWords>> matching;
        for (const Rule& rule : *rules)
        {
            for (const ControlWords& words : mFiles)
            {
                if (matches(rule, words.path))
                    matching.emplace_back(&rule, words);
            }
            keep(rule, kept);
        }
        for (const auto& [rule, words] : matching)
            apply(*rule, words);
        mRules.swap(kept);
        return true;
    }

private:
    Configuration()
    {
        const char* environment = getenv("OV_LOG");
        if (environment != nullptr && !configure(environment))
            ov_log_print(2, __PRETTY_FUNCTION__, OV_LOG_FILE, __LINE__, "Ignoring malformed OV_LOG [%s]",
                         environment);
    }

    // Drops the rules that the new rule overrides: a program that keeps switching the same files must not
    // grow the list.
    static void keep(const Rule& rule, std::vector<Rule>& rules)
    {
        const auto overridden = [&rule](Rule& earlier)
        {
            if (earlier.pattern != rule.pattern)
                return false;
            earlier.level.reset();
            if (rule.flags)
                earlier.flags.reset();
            return !earlier.flags;
        };
        rules.erase(std::remove_if(rules.begin(), rules.end(), overridden), rules.end());
        rules.push_back(rule);
    }

    std::mutex mMutex;
    std::vector<ControlWords> mFiles;
    std::vector<Rule> mRules;
};

// -------------------------------------------------------------------------------------------------- output

struct Sink
{
    ov_log_sink function;
    void* context;
};

// The pair is copied out under the lock and called without it.
std::mutex& sinkMutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}

Sink currentSink{nullptr, nullptr};

Sink readSink()
{
    const std::lock_guard<std::mutex> lock(sinkMutex());
    return currentSink;
}

// Texts may quote foreign input. Escaped, it can neither forge a log line nor control a terminal.
std::string escaped(const char* text)
{
    std::string result;
    for (const char* at = text; *at != '\0'; ++at)
    {
        const auto byte = static_cast<unsigned char>(*at);
        if (byte >= 0x20 && byte < 0x7F)
            result += *at;
        else
        {
            std::array<char, 5> hex{};
            snprintf(hex.data(), hex.size(), "\\x%02x", byte);
            result += hex.data();
        }
    }
    return result;
}

__attribute__((format(printf, 1, 0))) std::string formatted(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    std::array<char, 512> shortText{};
    const int length = vsnprintf(shortText.data(), shortText.size(), format, arguments);
    std::string text;
    if (length < 0)
        text = format; // an argument could not be converted; the bare format still shows the message
    else if (static_cast<std::size_t>(length) < shortText.size())
        text = shortText.data();
    else
    {
        text.resize(static_cast<std::size_t>(length));
        vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    return text;
}

std::string timeStamp()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    std::array<char, 80> text{};
    snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900,
             utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
             static_cast<long>(now.tv_nsec / 1000));
    return text.data();
}

std::string lineOf(const ov_log_record& record)
{
    const char* file = record.file[0] == '/' ? record.file + 1 : record.file;
    std::string line = timeStamp();
    line += ' ' + std::to_string(getpid()) + '/' + std::to_string(syscall(SYS_gettid));
    line += ' ' + std::to_string(record.level);
    line += ' ' + std::string(file) + ':' + std::to_string(record.line);
    line += ' ' + std::string(record.function) + ": ";
    line.append(static_cast<std::size_t>(std::clamp(record.indent, 0, 64)), ' ');
    line += escaped(record.text) + '\n';
    return line;
}

// One write per line, so that lines of several threads and processes do not mix.
void writeToStderr(std::string_view line)
{
    std::size_t written = 0;
    while (written < line.size())
    {
        const ssize_t count = write(STDERR_FILENO, line.data() + written, line.size() - written);
        if (count > 0)
            written += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            return; // there is no place left to report the error
    }
}

// Writes to stderr, and drops a line that would have to wait.
//
// Other processes share stderr, so it must stay blocking. A pipe or a terminal is therefore opened a second
// time, non-blocking.
class ImpatientOutput
{
public:
    ImpatientOutput()
    {
        struct stat status
        {
        };
        if (fstat(STDERR_FILENO, &status) != 0)
            return;
        mIsSocket = S_ISSOCK(status.st_mode);
        if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))
            mSecond = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    }

    void print(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(mMutex); // held only briefly: nothing here waits
        if (mDropped != 0 && send(noticeOf(mDropped)))
            mDropped = 0;
        if (mDropped != 0 || !send(line))
            ++mDropped;
    }

private:
    static std::string noticeOf(unsigned dropped)
    {
        const std::string text = std::to_string(dropped) + " log lines were dropped, nobody read them";
        return lineOf({2, __PRETTY_FUNCTION__, OV_LOG_FILE, __LINE__, 0, text.c_str()});
    }

    // Returns false if the line would have to wait. If only a part was written, the next line first ends the
    // cut line.
    bool send(const std::string& line)
    {
        const std::string whole = (mIsCut ? "\n" : "") + line;
        const ssize_t count = sendSome(whole);
        if (count > 0)
            mIsCut = static_cast<std::size_t>(count) < whole.size();
        return count == static_cast<ssize_t>(whole.size());
    }

    ssize_t sendSome(const std::string& text) const
    {
        if (mIsSocket)
            return ::send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (mSecond != -1)
            return write(mSecond, text.data(), text.size());
        pollfd item{STDERR_FILENO, POLLOUT, 0};
        if (poll(&item, 1, 0) != 1)
            return -1;
        return write(STDERR_FILENO, text.data(), text.size());
    }

    bool mIsSocket = false;
    int mSecond = -1;
    std::mutex mMutex;
    bool mIsCut = false; // the last line was written only in part
    unsigned mDropped = 0;
};

std::atomic<ImpatientOutput*> impatientOutput{nullptr};

__attribute__((format(printf, 5, 0))) void print(int level, const char* function, const char* file, int line,
                                                 const char* format, va_list arguments)
{
    const std::string text = formatted(format, arguments);
    const int indent = __atomic_load_n(&ov_log_indent, __ATOMIC_RELAXED);
    const ov_log_record record{level, function, file, line, indent, text.c_str()};
    const Sink sink = readSink();
    if (sink.function != nullptr)
        sink.function(&record, sink.context);
    else if (ImpatientOutput* output = impatientOutput.load(std::memory_order_acquire))
        output->print(lineOf(record));
    else
        writeToStderr(lineOf(record));
}

} // namespace

// ----------------------------------------------------------------------------------------------- interface

void ov_log_print(int level, const char* function, const char* file, int line, const char* format, ...)
{
    const int savedErrno = errno; // callers log before they read errno
    va_list arguments;
    va_start(arguments, format);
    try
    {
        print(level, function, file, line, format, arguments);
    }
    catch (const std::exception&)
    {
        writeToStderr("a log message was lost for want of memory\n");
    }
    va_end(arguments);
    errno = savedErrno;
}

int register_logging(const char* path, volatile unsigned int* flags, volatile int* level)
{
    Configuration::instance().add({path, flags, level});
    return 0;
}

int ov_log_configure(const char* rules)
{
    try
    {
        return Configuration::instance().configure(rules == nullptr ? "" : rules) ? 0 : -1;
    }
    catch (const std::bad_alloc&)
    {
        return -1;
    }
}

void ov_log_set_sink(ov_log_sink sink, void* context)
{
    const std::lock_guard<std::mutex> lock(sinkMutex());
    currentSink = {sink, context};
}

void ov_log_never_wait()
{
    // Never destroyed: threads log until the very end of the process.
    static auto* output = new ImpatientOutput;
    impatientOutput.store(output, std::memory_order_release);
}

void Tracer::begin() const
{
    __atomic_add_fetch(&ov_log_indent, __atomic_load_n(&ov_log_indent_size, __ATOMIC_RELAXED),
                       __ATOMIC_RELAXED);
    ov_log_print(mLevel, mFunction, mFile, mLine, "begin");
}

void Tracer::end() const
{
    // Only the present indentation is compared with 0, not the result. So a step wider than the indentation
    // makes it negative. This is intended; a negative indentation is printed as none.
    if (__atomic_load_n(&ov_log_indent, __ATOMIC_RELAXED) <= 0)
        __atomic_store_n(&ov_log_indent, 0, __ATOMIC_RELAXED);
    else
        __atomic_sub_fetch(&ov_log_indent, __atomic_load_n(&ov_log_indent_size, __ATOMIC_RELAXED),
                           __ATOMIC_RELAXED);
    ov_log_print(mLevel, mFunction, mFile, mLine, "end");
}
