#include <mosquitto.h>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>
#include <utility>

#include "benchmarks/road/System.h"

namespace
{

void check(int code, const char* what)
{
    if (code != MOSQ_ERR_SUCCESS)
        throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(code));
}

class Mqtt : public ISystem
{
public:
    Mqtt(int qos, int port) : mQos(qos), mPort(port)
    {
        mosquitto_lib_init();
        mPoster = connected();
        mosquitto_publish_callback_set(mPoster, [](mosquitto*, void* self, int)
                                       { ++static_cast<Mqtt*>(self)->mSent; });
        mosquitto_message_callback_set(mPoster, [](mosquitto*, void* self, const mosquitto_message*)
                                       { static_cast<Mqtt*>(self)->mEchoed = true; });
        check(mosquitto_subscribe(mPoster, nullptr, mEchoTopic.c_str(), 0), "mosquitto_subscribe");
    }

    void subscribe(const std::vector<std::string>& keys, Delivery deliver) override
    {
        mDeliver = std::move(deliver);
        mosquitto* subscriber = connected();
        mosquitto_message_callback_set(subscriber,
                                       [](mosquitto*, void* self, const mosquitto_message* message)
                                       {
                                           static_cast<Mqtt*>(self)->mDeliver(
                                               message->topic,
                                               {static_cast<const char*>(message->payload),
                                                static_cast<std::size_t>(message->payloadlen)});
                                       });
        for (const std::string& key : keys)
            check(mosquitto_subscribe(subscriber, nullptr, key.c_str(), mQos), "mosquitto_subscribe");
        check(mosquitto_loop_start(subscriber), "mosquitto_loop_start");
    }

    bool deliversCurrentValues() const override { return true; }

    void post(const std::string& key, const std::string& value) override
    {
        publish(key, value, mQos, true);
        // Acknowledgements must be read regularly, because only some hundred messages may be unacknowledged.
        if (mQos > 0 && mPosted - mSent >= inFlight)
            loopUntil([this] { return mPosted - mSent < inFlight; });
    }

    void flush() override
    {
        while (mosquitto_want_write(mPoster))
            loop();
    }

    // With QoS 0 nothing is acknowledged. Only an own message that comes back shows that earlier messages
    // have arrived.
    void sync() override
    {
        if (mQos > 0)
            return loopUntil([this] { return mSent == mPosted; });
        mEchoed = false;
        publish(mEchoTopic, "echo", 0, false);
        loopUntil([this] { return mEchoed; });
    }

    std::optional<std::string> query(const std::string&) override { return std::nullopt; }

private:
    static constexpr int inFlight = 500;

    // Posts leave at once: without a thread of its own, libmosquitto writes them on the caller's thread.
    mosquitto* connected()
    {
        constexpr int keepAliveSeconds = 3600;
        mosquitto* client = mosquitto_new(nullptr, true, this);
        if (client == nullptr)
            throw std::runtime_error("mosquitto_new");
        check(mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1), "MOSQ_OPT_TCP_NODELAY");
        check(mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, inFlight), "MOSQ_OPT_SEND_MAXIMUM");
        check(mosquitto_connect(client, "127.0.0.1", mPort, keepAliveSeconds), "mosquitto_connect");
        return client;
    }

    void publish(const std::string& topic, const std::string& text, int qos, bool retain)
    {
        check(mosquitto_publish(mPoster, nullptr, topic.c_str(), static_cast<int>(text.size()), text.data(),
                                qos, retain),
              "mosquitto_publish");
        ++mPosted;
    }

    // Used instead of mosquitto_loop(). Each post writes a wake-up byte, and mosquitto_loop() would first
    // read these bytes, one per call.
    void loop()
    {
        constexpr int second = 1000;
        const bool writes = mosquitto_want_write(mPoster);
        pollfd socket{mosquitto_socket(mPoster), static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0};
        if (poll(&socket, 1, second) < 0)
            throw std::runtime_error("poll");
        if ((socket.revents & POLLOUT) != 0)
            check(mosquitto_loop_write(mPoster, 1), "mosquitto_loop_write");
        if ((socket.revents & ~POLLOUT) != 0)
            check(mosquitto_loop_read(mPoster, 1), "mosquitto_loop_read");
        check(mosquitto_loop_misc(mPoster), "mosquitto_loop_misc");
    }

    template <class Condition>
    void loopUntil(Condition condition)
    {
        while (!condition())
            loop();
    }

    int mQos;
    int mPort;
    mosquitto* mPoster = nullptr;
    Delivery mDeliver;
    std::string mEchoTopic = "echo." + std::to_string(getpid());
    bool mEchoed = false;
    int mPosted = 0;
    int mSent = 0; ///< QoS 0: written to the kernel; QoS 1: acknowledged by the broker
};

} // namespace

std::unique_ptr<ISystem> connectSystem(const std::vector<std::string>& arguments)
{
    if (arguments.size() != 2)
        throw std::invalid_argument("QOS PORT");
    return std::make_unique<Mqtt>(std::stoi(arguments[0]), std::stoi(arguments[1]));
}
