#ifndef DAEMON_LASTWORDS_H
#define DAEMON_LASTWORDS_H

#include <string>

/// Prints to stderr why the program ends. Waits at most a second for somebody to read it: the program must
/// end, so that it can be started again.
void printLastWords(std::string text);

#endif
