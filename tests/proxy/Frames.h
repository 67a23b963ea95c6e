#ifndef TESTS_PROXY_FRAMES_H
#define TESTS_PROXY_FRAMES_H

#include <string>

#include "tests/support/ScriptedBroker.h"

using Frames = ScriptedBroker::Frames;

/// Neighbouring bytes differ, so that shifted or repeated parts show.
inline std::string bytes(std::size_t size)
{
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>('!' + i % 89);
    return text;
}

/// Splits `text` into frames of at most 512 bytes.
inline Frames cut(const std::string& text)
{
    Frames frames;
    for (std::size_t at = 0; at < text.size(); at += 512)
        frames.push_back(text.substr(at, 512));
    return frames;
}

#endif
