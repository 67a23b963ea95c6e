#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

// Must not compile: the argument is not what the format says.
void wrong()
{
    OV_LOG(2, "%s", 1);
}
