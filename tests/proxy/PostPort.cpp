#include "tests/proxy/PostPort.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <functional>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "tests/support/Wait.h"

namespace
{

constexpr uint16_t port = 5556;
constexpr std::size_t greetingBytes = 64;
constexpr int waitMilliseconds = 1;

// The greeting and READY of a subscriber. They must be written together, with nothing else.
std::string handshake()
{
    std::string greeting("\xff\0\0\0\0\0\0\0\0\x7f\x03\1NULL", 16);
    greeting.resize(greetingBytes, '\0');
    return greeting + std::string("\4\x19\5READY\x0bSocket-Type\0\0\0\3SUB", 27);
}

const std::string subscriptionToAll("\0\1\1", 3);

int listenOnPort()
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    constexpr int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    // Not the smallest buffer: after a full 2 KiB buffer for a second, Linux sometimes sends only a few
    // hundred bytes a second from then on, however fast the reader is.
    constexpr int small = 8192;
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, 8) != 0)
    {
        close(listener);
        throw std::runtime_error("cannot bind the post port");
    }
    return listener;
}

bool isReadable(int descriptor)
{
    pollfd item{descriptor, POLLIN, 0};
    return poll(&item, 1, waitMilliseconds) > 0;
}

} // namespace

/// Splits the bytes of a client into commands and messages.
class PostPort::Stream
{
public:
    std::function<void()> onReady;
    std::function<void(const std::string&)> onMessage;

    void feed(const char* bytes, std::size_t size)
    {
        mBytes.append(bytes, size);
        if (!mIsGreeted && mBytes.size() >= greetingBytes)
        {
            mBytes.erase(0, greetingBytes);
            mIsGreeted = true;
        }
        while (mIsGreeted && takeFrame())
            continue;
    }

private:
    static constexpr unsigned more = 1;
    static constexpr unsigned isLong = 2;
    static constexpr unsigned isCommand = 4;

    // Returns false if the frame is still incomplete.
    bool takeFrame()
    {
        if (mBytes.empty())
            return false;
        const unsigned flags = byte(0);
        const std::size_t header = (flags & isLong) != 0 ? 9 : 2;
        if (mBytes.size() < header)
            return false;
        std::size_t size = 0;
        for (std::size_t at = 1; at < header; ++at)
            size = size << 8 | byte(at);
        if (mBytes.size() < header + size)
            return false;
        use(flags, mBytes.substr(header, size));
        mBytes.erase(0, header + size);
        return true;
    }

    void use(unsigned flags, const std::string& body)
    {
        if ((flags & isCommand) != 0)
        {
            if (body.substr(0, 6) == "\5READY")
                onReady();
            return;
        }
        mMessage += body;
        if ((flags & more) == 0)
        {
            onMessage(mMessage);
            mMessage.clear();
        }
    }

    unsigned byte(std::size_t at) const { return static_cast<unsigned char>(mBytes[at]); }

    std::string mBytes;
    std::string mMessage;
    bool mIsGreeted = false;
};

PostPort::PostPort(int postsPerSecond)
    : mListener(listenOnPort()), mPace(postsPerSecond), mThread([this] { run(); })
{
}

PostPort::~PostPort()
{
    mStop = true;
    mThread.join();
    close(mListener);
}

std::size_t PostPort::taken() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mTaken;
}

bool PostPort::isLast(const std::string& text) const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mLast == text;
}

bool PostPort::waitFor(const std::string& text) const
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, testDeadline, [&] { return mLast == text; });
}

// ---------------------------------------------------------------------------------------- the port's thread

void PostPort::run()
{
    while (!mStop)
    {
        if (!isReadable(mListener))
            continue;
        const int connection = accept4(mListener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (connection == -1)
            continue;
        serve(connection);
        close(connection);
    }
}

void PostPort::serve(int connection)
{
    const auto write = [connection](const std::string& bytes)
    { static_cast<void>(send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL)); };

    bool isReady = false;
    Stream stream;
    stream.onReady = [&]
    {
        isReady = true;
        write(subscriptionToAll);
    };
    stream.onMessage = [this](const std::string& post) { note(post); };
    write(handshake());
    mThen = std::chrono::steady_clock::now();
    while (!mStop)
    {
        if (isReady && !mayTake())
        {
            // The pace of a slow reader, which is the subject of the test. It does not wait for anything to
            // be ready.
            std::this_thread::sleep_for(std::chrono::milliseconds(waitMilliseconds));
            continue;
        }
        std::array<char, 4096> bytes{};
        if (!isReadable(connection))
            continue;
        const ssize_t count = recv(connection, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (count == 0)
            return;
        stream.feed(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
}

void PostPort::note(const std::string& post)
{
    mDue -= 1;
    if (post == "Sync")
        return;
    const std::lock_guard<std::mutex> lock(mMutex);
    ++mTaken;
    mLast = post;
    mChanged.notify_all();
}

// Whether a post is due. The port does not catch up on time without posts.
bool PostPort::mayTake()
{
    const int pace = mPace;
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::duration<double> span = now - std::exchange(mThen, now);
    mDue = std::min(mDue + span.count() * pace, 1.0);
    return pace == all || mDue > 0;
}
