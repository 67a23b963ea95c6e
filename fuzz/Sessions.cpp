// Fuzzes whole sessions of several connections with a broker, in one process. The ports are lists of socket
// pairs, and time passes only when the input says so.

#include <array>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "broker/Broker.h"
#include "broker/wire/Listener.h"
#include "common/Logging.h"
#include "fuzz/Fuzz.h"
#include "tests/support/WireFrames.h"

// ----------------------------------------------------------------------- replacements for the broker's calls
//
// A definition in the program replaces the libraries' definition.

namespace
{

std::chrono::nanoseconds elapsed{0};

/// The connections that wait for a port to accept them.
struct Waiting
{
    int listener = -1; ///< an event counter: readable while connections wait
    std::deque<int> connections;
};

std::array<Waiting, 3> ports;

Waiting& waitingAt(uint16_t port)
{
    constexpr uint16_t first = 5555;
    return ports.at(static_cast<std::size_t>(port - first));
}

} // namespace

std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept
{
    constexpr std::chrono::hours begin{1};
    return time_point(begin + elapsed);
}

Listener::Listener(uint16_t port, int) : mSocket(eventfd(0, EFD_NONBLOCK | EFD_SEMAPHORE | EFD_CLOEXEC))
{
    waitingAt(port) = {mSocket.number(), {}};
}

void Listener::listen() {}

bool Listener::isFull() const
{
    return false;
}

std::size_t Listener::waiting() const
{
    for (const Waiting& port : ports)
    {
        if (port.listener == mSocket.number())
            return port.connections.size();
    }
    return 0;
}

Descriptor Listener::accept(sockaddr_in&, bool&)
{
    for (Waiting& port : ports)
    {
        eventfd_t one = 0;
        if (port.listener != mSocket.number() || eventfd_read(port.listener, &one) != 0)
            continue;
        const int connection = port.connections.front();
        port.connections.pop_front();
        return Descriptor(connection);
    }
    return {};
}

// ----------------------------------------------------------------------------------------------- the clients

namespace
{

using namespace std::string_literals;

constexpr std::array<const char*, 3> serverTypes{"ROUTER", "SUB", "XPUB"};
constexpr std::array<const char*, 3> clientTypes{"REQ", "PUB", "SUB"};

std::string greeting()
{
    std::string bytes("\xff\0\0\0\0\0\0\0\0\x7f\3\1NULL", 16);
    bytes.resize(64, '\0');
    return bytes;
}

std::string ready(const std::string& type)
{
    return WireFrames::frame("\5READY\x0bSocket-Type\0\0\0"s + static_cast<char>(type.size()) + type,
                             WireFrames::command);
}

/// A client's end of a connection. Checks everything that the broker sends.
class Client
{
public:
    explicit Client(std::size_t port) : mPort(port)
    {
        std::array<int, 2> ends{};
        Fuzz::require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) == 0,
                      "there is a pair of sockets");
        // Small, so that the broker finds the buffers full.
        constexpr int bytes = 4096;
        for (const int end : ends)
            setsockopt(end, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
        mSocket = Descriptor(ends[0]);
        ports[mPort].connections.push_back(ends[1]);
        eventfd_write(ports[mPort].listener, 1);
    }

    std::size_t port() const { return mPort; }

    void write(std::string_view bytes)
    {
        mSaid.append(bytes.substr(0, 64)); // enough to recognise the messages
        static_cast<void>(!::send(mSocket.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }

    void shakeHands() { write(greeting() + ready(clientTypes[mPort])); }

    /// Reads everything that has arrived. Returns false if nothing had arrived.
    bool read()
    {
        static std::array<char, 65536> bytes;
        const ssize_t count = recv(mSocket.number(), bytes.data(), bytes.size(), 0);
        if (count <= 0)
            return false;
        mReceived.append(bytes.data(), static_cast<std::size_t>(count));
        check();
        return true;
    }

private:
    void check()
    {
        static const std::size_t openingBytes = (greeting() + ready("SUB")).size();
        if (!mIsOpened)
        {
            const std::string expected = greeting() + ready(serverTypes[mPort]);
            Fuzz::require(mReceived.compare(0, expected.size(), expected, 0, mReceived.size()) == 0,
                          "greeting and READY come first");
            if (mReceived.size() < expected.size())
                return;
            mReceived.erase(0, expected.size());
            mIsOpened = true;
        }
        if (!mReceived.empty())
            Fuzz::require(mSaid.size() >= 2 * openingBytes / 3 && mSaid[0] == '\xff',
                          "nothing more comes to one that has not greeted");
        while (std::optional<WireFrames::Frame> frame = WireFrames::takeFrame(mReceived))
            check(*frame);
    }

    void check(const WireFrames::Frame& frame)
    {
        constexpr unsigned all = WireFrames::more | WireFrames::isLong | WireFrames::command;
        Fuzz::require((frame.flags & ~all) == 0, "no flag is reserved");
        if ((frame.flags & WireFrames::command) != 0)
        {
            const bool isKnown =
                frame.body.rfind("\4PONG", 0) == 0 || (mPort != 2 && frame.body.rfind("\4PING\0\0"s, 0) == 0);
            Fuzz::require(isKnown && (frame.flags & WireFrames::more) == 0, "a command is PONG, or PING");
            return;
        }
        Fuzz::require(frame.body.size() <= 512, "no frame is longer than the library takes");
        const bool isFirst = !std::exchange(mHasMore, (frame.flags & WireFrames::more) != 0);
        if (mPort == 0 && isFirst)
            Fuzz::require(frame.body.empty() && mHasMore, "an answer has a delimiter");
        if (mPort == 1)
            Fuzz::require(isFirst && frame.body == "\1"s, "a poster is sent its subscription only");
        if (mPort == 2 && isFirst)
            Fuzz::require(frame.body == "Sync" || frame.body.rfind("{\"", 0) == 0, "a notification is one");
    }

    std::size_t mPort;
    Descriptor mSocket;
    std::string mSaid;
    std::string mReceived;
    bool mIsOpened = false;
    bool mHasMore = false;
};

Options smallOptions()
{
    Options options;
    options.limits.keys = 20;
    options.limits.keyBytes = 30;
    options.limits.valueBytes = 300;
    options.limits.storedBytes = 2000;
    options.limits.messageBytes = 2000;
    options.limits.timers = 3;
    options.limits.counters = 3;
    options.limits.notifyBytes = std::size_t{128} * 1024;
    options.limits.memory = std::size_t{300} * 1024;
    options.limits.connections = 4;
    return options;
}

// ----------------------------------------------------------------------------------------------- the session

/// Reads the input as steps of a session.
class Session
{
public:
    Session(const uint8_t* data, std::size_t size)
        : mInput(reinterpret_cast<const char*>(data), size),
          mBroker(smallOptions(), std::make_unique<const Policy>()),
          mInterrupt(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC))
    {
    }

    void run()
    {
        while (!mInput.empty())
            step();
        for (auto& client : mClients)
        {
            while (client && client->read())
                round();
        }
        constexpr std::chrono::seconds longEnough{6};
        elapsed += longEnough;
        round();
    }

private:
    enum Step
    {
        Open,
        OpenAndShakeHands,
        Write,
        WriteMessage,
        WriteCommand,
        WriteMuch,
        Read,
        Close,
        Round,
        Pass,
        steps,
    };

    unsigned byte()
    {
        if (mInput.empty())
            return 0;
        const auto value = static_cast<unsigned char>(mInput.front());
        mInput.remove_prefix(1);
        return value;
    }

    std::string_view bytes()
    {
        const std::string_view taken = mInput.substr(0, byte());
        mInput.remove_prefix(taken.size());
        return taken;
    }

    void step()
    {
        const unsigned code = byte();
        std::unique_ptr<Client>& client = mClients[code / steps % mClients.size()];
        switch (static_cast<Step>(code % steps))
        {
        case Open:
        case OpenAndShakeHands:
            client = std::make_unique<Client>(byte() % ports.size());
            if (code % steps == OpenAndShakeHands)
                client->shakeHands();
            return;
        case Write:
            if (const std::string_view text = bytes(); client)
                client->write(text);
            return;
        case WriteMessage:
            if (const std::string_view text = bytes(); client)
                client->write(WireFrames::message(client->port() == 0
                                                      ? std::vector<std::string>{"", std::string(text)}
                                                      : std::vector<std::string>{std::string(text)}));
            return;
        case WriteCommand:
            if (const std::string_view text = bytes(); client)
                client->write(WireFrames::frame(text, WireFrames::command));
            return;
        case WriteMuch:
            if (const std::string_view text = bytes(); client)
            {
                for (unsigned count = byte(); count > 0; --count)
                    client->write(WireFrames::frame(text));
            }
            return;
        case Read:
            if (client)
                client->read();
            return;
        case Close:
            client.reset();
            return;
        case Pass:
            elapsed += std::chrono::milliseconds(byte());
            return round();
        case Round:
        case steps:
            return round();
        }
    }

    // One round of the loop, as if an interrupt came after it.
    void round() { mBroker.serveUntil(mInterrupt.number()); }

    std::string_view mInput;
    Broker mBroker;
    Descriptor mInterrupt;
    std::array<std::unique_ptr<Client>, 6> mClients;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static const int silent = []
    {
        ov_log_set_sink([](const ov_log_record*, void*) {}, nullptr);
        return 0;
    }();
    static_cast<void>(silent);
    Session(data, size).run();
    for (Waiting& port : ports)
    {
        for (const int connection : port.connections)
            close(connection);
        port.connections.clear();
    }
    return 0;
}
