#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

// Must not compile: the argument does not fit the format.
void wrong()
{
    OV_LOG(2, "%s", 1);
}
