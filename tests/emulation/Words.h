#ifndef TESTS_EMULATION_WORDS_H
#define TESTS_EMULATION_WORDS_H

/// The emulator passes TCP options through as integers: for TCP_INFO, the emulated program would get only the
/// first four bytes. It does not know SIOCOUTQNSD. The broker needs both, so they pass through the emulator
/// word by word. Emulated.cpp, in the emulated programs, requests options with these numbers. Emulator.cpp,
/// in the emulator, returns the kernel's answers.
constexpr int firstWordOfInfo = 0x10000; ///< and following; requesting the first word reads TCP_INFO anew
constexpr int unsentBytes = 0x20000;     ///< the result of SIOCOUTQNSD

#endif
