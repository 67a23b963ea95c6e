#ifndef BROKER_POLICY_POLICYTOML_H
#define BROKER_POLICY_POLICYTOML_H

/// The TOML library, which is large and all in headers: only what reads the files of a policy includes it.
/// Its parser reports errors as results.
#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#define TOML_ENABLE_WINDOWS_COMPAT 0
// Some texts, such as "[+]", violate what the library asserts, and it reports them well all the same. With
// NDEBUG it would let the compiler rely on the assertions.
#undef NDEBUG
#define TOML_ASSERT(expression) static_assert(true)
#define TOML_MAX_NESTED_VALUES 4 // a policy needs two: tables in a list in a table of the file
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wundef"
// For most letters beyond ASCII that it meets, version 3.3 reaches what it believes to be unreachable, and
// the program may do anything then. They are no whitespace.
#include <toml++/impl/forward_declarations.h>
#include <toml++/impl/preprocessor.h>
#undef TOML_UNREACHABLE
#define TOML_UNREACHABLE return false
#include <toml++/impl/unicode.h>
#undef TOML_UNREACHABLE
#define TOML_UNREACHABLE __builtin_unreachable()
#include <toml++/toml.h>
#pragma GCC diagnostic pop

#endif
