#ifndef TESTS_BROKER_POSTEROF_H
#define TESTS_BROKER_POSTEROF_H

#include <string>

#include "protocol/Poster.h"

/// A client of the user "net" that runs the program "netd".
inline BrokerProtocol::Poster posterOf(const std::string& service, uint32_t pid)
{
    BrokerProtocol::Poster poster;
    poster.user = "net";
    poster.uid = 7;
    poster.service = service;
    poster.program = "netd";
    poster.pid = pid;
    return poster;
}

#endif
