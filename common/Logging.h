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

    /// Hands a source file's control words to the facility, which may change them at any time from any
    /// thread, so they must live until the process ends. Settings made so far, by OV_LOG or
    /// ov_log_configure(), are applied at once. Returns 0.
    /// @param path the source file's compile-time path; not copied
    OV_EXPORT int register_logging(const char* path, volatile unsigned int* flags, volatile int* level);

    /// Changes the control words of registered files, and of files registered later. The environment variable
    /// OV_LOG is read in the same form when the first file registers. Any thread, at any time; concurrent
    /// calls take effect one after the other.
    ///
    /// @param rules "PATTERN=LEVEL[:FLAGS]" rules separated by commas; of several that match a file the last
    ///              wins. PATTERN is a shell glob for the end of the source path, with or without its
    ///              extension
    ///              ("StatusManagerProxy", "statusmanager/*", "*"); LEVEL is decimal; FLAGS is hexadecimal,
    ///              bit 31 for messages and bit 30 for trace scopes, and is left as it was when not given.
    ///              Null and the empty string hold no rule and change nothing.
    /// @returns 0; -1 when a rule is malformed, or memory runs out: then nothing has been changed.
    OV_EXPORT int ov_log_configure(const char* rules);

    /// One message on its way to a sink. The pointers are valid during the call only.
    struct ov_log_record
    {
        int level;            ///< 0 to 7
        const char* function; ///< the calling function's full signature
        const char* file;     ///< the source path's tail, from its last slash on
        int line;             ///< in that file
        int indent;           ///< the indentation at this moment, in columns; may be negative
        const char* text;     ///< as formatted; what it quotes from outside may hold any byte but NUL
    };

    /// Called with each message and the context given to ov_log_set_sink().
    typedef void (*ov_log_sink)(const struct ov_log_record* record, void* context);

    /// Sends all messages to `sink`, on the thread that logs, instead of to stderr; null restores stderr. Any
    /// thread, at any time. No lock is held while the sink is called, so several threads may call it at once,
    /// and it may log itself (unless it would do so for ever). A thread that was printing at this moment may
    /// still call the sink that was replaced, so a sink and its context must live until the process ends. A
    /// sink must not throw. It must not call the status manager either: StatusManager::getInstance() holds a
    /// lock while it logs, so a sink that calls it then waits for ever.
    OV_EXPORT void ov_log_set_sink(ov_log_sink sink, void* context);

    /// From now on, printing to stderr never waits. A message that stderr does not take at once is dropped,
    /// and the next one that it takes is preceded by the number of those. For a process that must go on
    /// whatever becomes of the reader of its log; it should ignore SIGPIPE, too. Call it before other threads
    /// log.
    OV_EXPORT void ov_log_never_wait(void);

    /// The current indentation of trace output, in columns. Shared by all threads without a lock: scopes of
    /// concurrent threads shift each other's indentation, which is accepted. Access it and the step with the
    /// compiler's atomic builtins.
    extern OV_EXPORT int ov_log_indent;
    /// The step of one trace scope, in columns.
    extern OV_EXPORT int ov_log_indent_size;

#ifdef __cplusplus
}

/// Marks what a suppressed message or trace scope costs: loads and compares at the place itself. Inline for
/// certain, also where the compiler optimises for size.
#define OV_LOG_INLINE __attribute__((always_inline)) inline

/// The test at a call site. Levels 0 to 2 always pass; above, bit 31 of the flags must be set (the word read
/// as signed is negative) and the file's level must reach the message's.
OV_LOG_INLINE bool ov_log_admits(int level, volatile unsigned int& flags, volatile int& maximum)
{
    if (level <= 2)
        return true;
    return static_cast<int>(__atomic_load_n(&flags, __ATOMIC_RELAXED)) < 0 &&
           __atomic_load_n(&maximum, __ATOMIC_RELAXED) > level - 1;
}

/// Where the part of a path begins that starts with its last slash.
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

/// A number that the compiler has worked out, whatever it optimises for.
template <size_t Value>
constexpr size_t ov_log_constant = Value;

/// Logs "begin" when it is made and "end" when its scope is left, at the level given and under the control
/// words given. These are read anew at the end, so a change in between can leave one line without the other.
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

    // Seldom called, which moves the calls and what prepares them out of the way.
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
/// behind the includes. At first messages up to level 5 are printed, and no trace scopes.
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
