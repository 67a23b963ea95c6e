#ifndef TESTS_BROKER_MESSAGES_H
#define TESTS_BROKER_MESSAGES_H

#include <string>

#include "tests/support/RawClient.h"

/// The messages that most tests with a broker's plain peers need, for names and values without quotes.

inline std::string postOf(const std::string& key, const std::string& value)
{
    return R"({"postStatus":{")" + key + R"(":")" + value + "\"}}";
}

/// The broker's answer when asked for the key's value.
inline std::string valueOf(RawRequester& requester, const std::string& key)
{
    return requester.ask(R"({"getClientInfoValue":")" + key + "\"}");
}

/// The broker's answer where the key has this value.
inline std::string reply(const std::string& value)
{
    return R"({"statusValue":")" + value + "\"}";
}

#endif
