// A broker that does only the indispensable: floorbroker raw|json REQUESTS POSTS NOTIFICATIONS (ports)
// Prints "ready" on its standard output, and serves until it is ended.

#include <array>
#include <cstdio>
#include <exception>
#include <unordered_map>

#include "benchmarks/floor/Format.h"
#include "benchmarks/floor/Zmq.h"

namespace
{

class FloorBroker
{
public:
    FloorBroker(const std::string& format, const std::string& requests, const std::string& posts,
                const std::string& notifications)
        : mFormat(IFormat::make(format)), mContext(zmq_ctx_new()), mRequests(bound(ZMQ_REP, requests)),
          mPosts(bound(ZMQ_SUB, posts)), mNotifications(bound(ZMQ_PUB, notifications))
    {
        Zmq::subscribeToAll(mPosts);
    }

    [[noreturn]] void serve()
    {
        std::array<zmq_pollitem_t, 2> items{{{mPosts, 0, ZMQ_POLLIN, 0}, {mRequests, 0, ZMQ_POLLIN, 0}}};
        while (true)
        {
            Zmq::check(zmq_poll(items.data(), items.size(), -1) >= 0 || zmq_errno() == EINTR, "zmq_poll");
            takePosts();
            Zmq::takeNoteOfRoom(mNotifications);
            if (const auto query = Zmq::receive(mRequests, ZMQ_DONTWAIT))
                Zmq::send(mRequests, mFormat->writeReply(mValues[mFormat->readQuery(*query)]));
        }
    }

private:
    void* bound(int type, const std::string& port)
    {
        void* socket = Zmq::socket(mContext, type);
        Zmq::check(zmq_bind(socket, ("tcp://127.0.0.1:" + port).c_str()) == 0, "zmq_bind " + port);
        return socket;
    }

    void takePosts()
    {
        constexpr int batch = 1000; // then requests have their turn
        for (int taken = 0; taken < batch; ++taken)
        {
            const auto post = Zmq::receive(mPosts, ZMQ_DONTWAIT);
            if (!post)
                return;
            IFormat::Pair pair = mFormat->readPost(*post);
            Zmq::send(mNotifications, mFormat->writeUpdate(pair.key, pair.value));
            mValues[pair.key] = std::move(pair.value);
        }
    }

    std::unique_ptr<IFormat> mFormat;
    void* mContext;
    void* mRequests;
    void* mPosts;
    void* mNotifications;
    std::unordered_map<std::string, std::string> mValues;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5)
    {
        std::fputs("usage: floorbroker raw|json REQUESTS POSTS NOTIFICATIONS\n", stderr);
        return 2;
    }
    try
    {
        FloorBroker broker(argv[1], argv[2], argv[3], argv[4]);
        std::puts("ready");
        std::fflush(stdout);
        broker.serve();
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "floorbroker: %s\n", error.what());
        return 1;
    }
}
