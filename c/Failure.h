#ifndef C_FAILURE_H
#define C_FAILURE_H

namespace StatusC
{

/// Ends a call with this result, one of the codes STATUS_E... Thrown; the functions of status.h catch it.
struct Failure
{
    int result;
};

} // namespace StatusC

#endif
