#ifndef VESK_COMMON_LOGGING_H
#define VESK_COMMON_LOGGING_H

#include <stddef.h>

#include "common/Export.h"

/// @file
/// Logging and tracing, with control words per source file.
///
/// Levels: 0 failures of transport or peer, 1 wrong-thread misuse, 2 bad arguments and retries: always
/// printed. 5 milestones, 6 progress and notable conditions, 7 detail: printed when the source file's control
/// words admit them.

#ifdef __cplusplus
extern "C"
{
#endif

    /// Prints one message. Any thread; never fails and never throws.
    /// @param function the calling function's full signature
    /// @param file     the tail of the source path, from its last slash on
    /// @param format   printf-style, with its arguments
    OV_EXPORT void ov_log_print(int level, const char* function, const char* file, int line,
                                const char* format, ...) __attribute__((format(printf, 5, 6), cold));

    /// Registers a source file's control words. They may be changed at any time from any thread, so they must
    /// live until the process ends. Earlier settings, by OV_LOG or ov_log_configure(), are applied at once.
    /// Returns 0.
    /// @param path the source file's compile-time path; not copied
    OV_EXPORT int register_logging(const char* path, volatile unsigned int* flags, volatile int* level);

    /// Changes the control words of registered files, and of files registered later. The environment variable
    /// OV_LOG is read in the same form when the first file registers. Any thread, at any time; concurrent
    /// calls take effect one after the other.
    ///
    /// @param rules "PATTERN=LEVEL[:FLAGS]" rules separated by commas; the last rule that matches a file
    ///              wins. PATTERN is a shell glob for the end of the source path, with or without its
    ///              extension ("StatusManagerProxy", "statusmanager/*", "*"). LEVEL is decimal, 0 to 7. FLAGS
    ///              is hexadecimal: bit 31 admits messages, bit 30 trace scopes. Without FLAGS, the flags
    ///              stay as they are. Null and the empty string change nothing.
    /// @returns 0; -1 when a rule is malformed or memory runs out. After -1 nothing has changed.
    OV_EXPORT int ov_log_configure(const char* rules);

    /// One message on its way to a sink. The pointers are valid during the call only.
    struct ov_log_record
    {
        int level;            ///< 0 to 7
        const char* function; ///< the calling function's full signature
        const char* file;     ///< the source path's tail, from its last slash on
        int line;             ///< in that file
        int indent;           ///< the indentation at this moment, in columns; may be negative
        const char* text;     ///< the formatted text; not escaped, it may contain any byte but NUL
    };

    /// Called with each message and the context given to ov_log_set_sink().
    typedef void (*ov_log_sink)(const struct ov_log_record* record, void* context);

    /// Sends all messages to `sink`, on the thread that logs, instead of to stderr; null restores stderr. Any
    /// thread, at any time. No lock is held while the sink is called, so several threads may call it at once,
    /// and it may log itself (but not without end). A thread that prints during the change may still call the
    /// replaced sink. So a sink and its context must live until the process ends. A sink must not throw. A
    /// sink must not call the status manager: StatusManager::getInstance() holds a lock while it logs, so
    /// calling it from a sink would block for ever.
    OV_EXPORT void ov_log_set_sink(ov_log_sink sink, void* context);

    /// From now on, printing to stderr never waits. A message that stderr does not accept at once is dropped.
    /// A line with the number of dropped messages precedes the next accepted message. Use it in a process
    /// that must not stop when its log's reader stops; such a process should also ignore SIGPIPE. Call it
    /// before other threads log.
    OV_EXPORT void ov_log_never_wait(void);

    /// The current indentation of trace output, in columns. All threads share it without a lock, so scopes of
    /// concurrent threads shift each other's indentation; this is accepted. Access it and ov_log_indent_size
    /// with the compiler's atomic builtins.
    extern OV_EXPORT int ov_log_indent;
    /// How far one trace scope indents, in columns.
    extern OV_EXPORT int ov_log_indent_size;

#ifdef __cplusplus
}

/// Forces the test of a message or trace scope inline, also when the compiler optimises for size. A
/// suppressed message then costs only loads and compares.
#define OV_LOG_INLINE __attribute__((always_inline)) inline

/// The test at a call site. Levels 0 to 2 always pass. For higher levels, bit 31 of the flags must be set
/// (the word is negative if read as signed), and the file's level must be at least the message's.
OV_LOG_INLINE bool ov_log_admits(int level, volatile unsigned int& flags, volatile int& maximum)
{
    if (level <= 2)
        return true;
    return static_cast<int>(__atomic_load_n(&flags, __ATOMIC_RELAXED)) < 0 &&
           __atomic_load_n(&maximum, __ATOMIC_RELAXED) > level - 1;
}

/// The index of the path's last slash; 0 if it has none.
constexpr size_t ov_log_file_tail(const char* path)
{
    size_t tail = 0;
    for (size_t at = 0; path[at] != '\0'; ++at)
    {
        if (path[at] == '/')
            tail = at;
    }
    return tail;
}

/// Forces the compiler to compute `Value` at compile time, whatever it optimises for.
template <size_t Value>
constexpr size_t ov_log_constant = Value;

/// Logs "begin" on construction and "end" when its scope is left, at the given level and if the given control
/// words admit it. The words are read again at the end, so a change in between can leave one line without the
/// other.
class Tracer
{
public:
    /// Logs "begin", if the control words admit it. The texts and the words must outlive the scope.
    OV_LOG_INLINE Tracer(int level, const char* function, const char* file, int line,
                         unsigned int volatile& flags, int volatile& maximum)
        : mLevel(level), mFunction(function), mFile(file), mLine(line), mFlags(flags), mMaximum(maximum),
          mActive(true)
    {
        if (admitted())
            begin();
    }

    OV_LOG_INLINE ~Tracer()
    {
        if (mActive && admitted())
            end();
    }

    Tracer(const Tracer&) = delete;
    Tracer& operator=(const Tracer&) = delete;

private:
    OV_LOG_INLINE bool admitted() const
    {
        constexpr unsigned int traceBit = 1U << 30;
        return (__atomic_load_n(&mFlags, __ATOMIC_RELAXED) & traceBit) != 0 &&
               mLevel <= __atomic_load_n(&mMaximum, __ATOMIC_RELAXED);
    }

    // "cold" moves the rarely executed calls out of the hot code.
    OV_EXPORT __attribute__((cold)) void begin() const;
    OV_EXPORT __attribute__((cold)) void end() const;

    int mLevel;
    const char* mFunction;
    const char* mFile;
    int mLine;
    unsigned int volatile& mFlags;
    int volatile& mMaximum;
    bool mActive; // nothing clears it
};

/// Defines this source file's control words and registers them. Once per source file, outside any namespace,
/// behind the includes. Initially, messages up to level 5 and no trace scopes are printed.
#define OV_LOG_CONTROL_WORDS                                                                                 \
    static volatile unsigned int logFlags = 0xFFFFFFFFU;                                                     \
    static volatile int logLevel = 5;                                                                        \
    [[maybe_unused]] static const int logRegistered = register_logging(__FILE__, &logFlags, &logLevel)

/// Logs a message. A suppressed one costs the test only: its arguments are not evaluated.
#define OV_LOG(level, ...)                                                                                   \
    do                                                                                                       \
    {                                                                                                        \
        if (ov_log_admits((level), logFlags, logLevel))                                                      \
            ov_log_print((level), __PRETTY_FUNCTION__, OV_LOG_FILE, __LINE__, __VA_ARGS__);                  \
    } while (false)

/// Opens a trace scope that ends with the enclosing block.
#define OV_TRACE(level)                                                                                      \
    const Tracer tracer((level), __PRETTY_FUNCTION__, OV_LOG_FILE, __LINE__, logFlags, logLevel)

/// The name of this source file in messages: the part of its path from the last slash on.
#define OV_LOG_FILE (&__FILE__[ov_log_constant<ov_log_file_tail(__FILE__)>])

#endif

#endif
