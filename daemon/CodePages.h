#ifndef DAEMON_CODEPAGES_H
#define DAEMON_CODEPAGES_H

/// Gives back the pages of code and constants, of the program and its libraries, that were read so far. The
/// system maps those again that are used, and their neighbours. So what was used only once does not count as
/// memory of this process for ever.
void releaseCodePages();

#endif
