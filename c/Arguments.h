#ifndef C_ARGUMENTS_H
#define C_ARGUMENTS_H

#include <cstddef>
#include <string>

#include "statusmanager/StatusTypes.h"
#include "statusmanager/status.h"

/// Checks and copies the arguments of the functions of status.h. Throws Failure for a wrong argument.
namespace StatusC
{

std::string nameIn(const char* name);
std::string valueIn(const char* value);
StatusKeys namesIn(const char* const* names, std::size_t count);
StatusMap valuesIn(const status_pair_t* pairs, std::size_t count);

/// Where a result is returned to; must not be null.
template <class T>
T& resultAt(T* result);

/// Whether the messages can carry this document whole.
void checkSendable(const std::string& document);

/// The names, so that a question for their values can be sent whole: the last name may come twice.
StatusKeys askable(StatusKeys names);

[[noreturn]] void refuse(int result);

template <class T>
T& resultAt(T* result)
{
    if (result == nullptr)
        refuse(STATUS_EINVAL);
    return *result;
}

} // namespace StatusC

#endif
