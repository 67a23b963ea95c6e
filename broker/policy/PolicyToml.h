#ifndef BROKER_POLICY_POLICYTOML_H
#define BROKER_POLICY_POLICYTOML_H

/// Includes the TOML library, which is large and header-only. Only the readers of policy files include this.
/// Its parser reports errors as results.
#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#define TOML_ENABLE_WINDOWS_COMPAT 0
// Some texts, such as "[+]", violate the library's assertions, but it reports them well all the same. With
// NDEBUG it would let the compiler rely on the assertions.
#undef NDEBUG
#define TOML_ASSERT(expression) static_assert(true)
#define TOML_MAX_NESTED_VALUES 4 // a policy needs two: tables in a list in a table of the file
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wundef"
// For most letters beyond ASCII, version 3.3 reaches code that it marks as unreachable: undefined behaviour.
// Returning false is right: they are not whitespace.
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
