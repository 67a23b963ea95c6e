#ifndef TESTS_EMULATION_WORDS_H
#define TESTS_EMULATION_WORDS_H

/// The emulator hands options of TCP through as integers: of TCP_INFO the emulated program would get the
/// first four bytes. It does not know SIOCOUTQNSD either. The broker needs both, so they go through the
/// emulator word by word: Emulated.cpp, in the emulated programs, asks for options of these numbers, and
/// Emulator.cpp, in the emulator, answers with what the kernel tells.
constexpr int firstWordOfInfo = 0x10000; ///< and so on; asking for the first makes the kernel tell anew
constexpr int unsentBytes = 0x20000;     ///< what SIOCOUTQNSD tells

#endif
