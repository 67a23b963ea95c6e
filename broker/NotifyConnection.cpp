#include "broker/NotifyConnection.h"

#include <algorithm>
#include <sys/socket.h>

bool NotifyConnection::wants(std::string_view message) const
{
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](const std::string& prefix) { return message.substr(0, prefix.size()) == prefix; });
}

void NotifyConnection::resizeSendBuffer(std::size_t size)
{
    if (sendBuffer == size)
        return;
    const int bytes = static_cast<int>(size);
    setsockopt(descriptor(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
    sendBuffer = size;
}

void NotifyConnection::dropOutput()
{
    const linger none{1, 0};
    setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &none, sizeof(none));
}
