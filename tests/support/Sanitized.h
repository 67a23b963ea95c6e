#ifndef TESTS_SUPPORT_SANITIZED_H
#define TESTS_SUPPORT_SANITIZED_H

/// Whether this is built with a sanitizer that keeps freed memory for a while. The memory of a process then
/// shows nothing.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

/// Whether the thread sanitizer delays signals. It runs a handler only in those waiting functions that it
/// knows, and waitid() is not among them. Tests of such handlers are skipped then; they always run without a
/// sanitizer, and with the others.
#if defined(__SANITIZE_THREAD__)
constexpr bool areSignalsDelayed = true;
#else
constexpr bool areSignalsDelayed = false;
#endif

#endif
