#ifndef TESTS_BROKER_MESSAGES_H
#define TESTS_BROKER_MESSAGES_H

#include <string>

#include "tests/support/RawClient.h"

/// Messages that most tests with plain peers need, for names and values without quotes.

inline std::string postOf(const std::string& key, const std::string& value)
{
    return R"({"postStatus":{")" + key + R"(":")" + value + "\"}}";
}

/// The broker's answer to a query for the key's value.
inline std::string valueOf(RawRequester& requester, const std::string& key)
{
    return requester.ask(R"({"getClientInfoValue":")" + key + "\"}");
}

/// The broker's answer for this value.
inline std::string reply(const std::string& value)
{
    return R"({"statusValue":")" + value + "\"}";
}

#endif
