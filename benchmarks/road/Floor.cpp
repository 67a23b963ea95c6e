#include <thread>
#include <utility>

#include "benchmarks/floor/Format.h"
#include "benchmarks/floor/Zmq.h"
#include "benchmarks/road/System.h"

namespace
{

class Floor : public ISystem
{
public:
    Floor(const std::string& format, const std::string& requests, const std::string& posts,
          std::string notifications)
        : mFormat(IFormat::make(format)), mContext(zmq_ctx_new()), mRequests(connected(ZMQ_REQ, requests)),
          mPosts(connected(ZMQ_PUB, posts)), mNotificationsPort(std::move(notifications))
    {
    }

    void subscribe(const std::vector<std::string>&, Delivery deliver) override
    {
        void* notifications = connected(ZMQ_SUB, mNotificationsPort);
        Zmq::subscribeToAll(notifications);
        std::thread(
            [this, notifications, deliver = std::move(deliver)]
            {
                while (const auto update = Zmq::receive(notifications, 0))
                {
                    const IFormat::Pair pair = mFormat->readUpdate(*update);
                    deliver(pair.key, pair.value);
                }
            })
            .detach();
    }

    bool deliversCurrentValues() const override { return false; }

    void post(const std::string& key, const std::string& value) override
    {
        Zmq::send(mPosts, mFormat->writePost(key, value));
    }

    void flush() override {}

    void sync() override
    {
        query("key.00000");
        Zmq::takeNoteOfRoom(mPosts);
    }

    std::optional<std::string> query(const std::string& key) override
    {
        Zmq::send(mRequests, mFormat->writeQuery(key));
        return mFormat->readReply(*Zmq::receive(mRequests, 0));
    }

private:
    void* connected(int type, const std::string& port)
    {
        void* socket = Zmq::socket(mContext, type);
        Zmq::check(zmq_connect(socket, ("tcp://127.0.0.1:" + port).c_str()) == 0, "zmq_connect " + port);
        return socket;
    }

    std::unique_ptr<IFormat> mFormat;
    void* mContext;
    void* mRequests;
    void* mPosts;
    std::string mNotificationsPort;
};

} // namespace

std::unique_ptr<ISystem> connectSystem(const std::vector<std::string>& arguments)
{
    if (arguments.size() != 4)
        throw std::invalid_argument("raw|json REQUESTS POSTS NOTIFICATIONS");
    return std::make_unique<Floor>(arguments[0], arguments[1], arguments[2], arguments[3]);
}
