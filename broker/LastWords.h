#ifndef BROKER_LASTWORDS_H
#define BROKER_LASTWORDS_H

#include <string>

/// Prints to stderr why the program ends, and waits no longer than a second for somebody to read it: the
/// program must end, so that whoever started it can start it again.
void printLastWords(std::string text);

#endif
