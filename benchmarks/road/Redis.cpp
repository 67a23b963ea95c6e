#include <array>
#include <hiredis/hiredis.h>
#include <stdexcept>
#include <thread>
#include <utility>

#include "benchmarks/road/System.h"

namespace
{

struct FreeReply
{
    void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, FreeReply>;

std::string textOf(const redisReply* reply)
{
    return {reply->str, reply->len};
}

redisContext* connected(int port)
{
    redisContext* context = redisConnect("127.0.0.1", port);
    if (context == nullptr || context->err != 0)
        throw std::runtime_error("redisConnect");
    return context;
}

Reply nextReply(redisContext* context)
{
    void* reply = nullptr;
    if (redisGetReply(context, &reply) != REDIS_OK)
        throw std::runtime_error(std::string("redisGetReply: ") + context->errstr);
    return Reply(static_cast<redisReply*>(reply));
}

void append(redisContext* context, const std::vector<std::string>& words)
{
    std::vector<const char*> texts;
    std::vector<std::size_t> sizes;
    for (const std::string& word : words)
    {
        texts.push_back(word.data());
        sizes.push_back(word.size());
    }
    redisAppendCommandArgv(context, static_cast<int>(words.size()), texts.data(), sizes.data());
}

template <std::size_t N>
void append(redisContext* context, const std::array<const char*, N>& texts,
            const std::array<std::size_t, N>& sizes)
{
    // hiredis only reads the texts, but its parameter is not constant.
    auto copy = texts;
    redisAppendCommandArgv(context, static_cast<int>(N), copy.data(), sizes.data());
}

class Redis : public ISystem
{
public:
    explicit Redis(int port) : mPort(port), mContext(connected(port)) {}

    void subscribe(const std::vector<std::string>& keys, Delivery deliver) override
    {
        redisContext* context = connected(mPort);
        std::vector<std::string> words{"SUBSCRIBE"};
        words.insert(words.end(), keys.begin(), keys.end());
        append(context, words);
        std::thread(
            [context, deliver = std::move(deliver)]
            {
                while (true)
                {
                    const Reply reply = nextReply(context);
                    if (textOf(reply->element[0]) == "message")
                        deliver(textOf(reply->element[1]), textOf(reply->element[2]));
                }
            })
            .detach();
    }

    bool deliversCurrentValues() const override { return false; }

    void post(const std::string& key, const std::string& value) override
    {
        append<4>(mContext, {"HSET", "status", key.data(), value.data()}, {4, 6, key.size(), value.size()});
        append<3>(mContext, {"PUBLISH", key.data(), value.data()}, {7, key.size(), value.size()});
        mUnanswered += 2;
        if (mUnanswered >= pipelined)
            sync();
    }

    void flush() override
    {
        for (int done = 0; done == 0;)
            if (redisBufferWrite(mContext, &done) != REDIS_OK)
                throw std::runtime_error(std::string("redisBufferWrite: ") + mContext->errstr);
    }

    void sync() override
    {
        for (; mUnanswered > 0; --mUnanswered)
            nextReply(mContext);
    }

    std::optional<std::string> query(const std::string& key) override
    {
        sync();
        append<3>(mContext, {"HGET", "status", key.data()}, {4, 6, key.size()});
        const Reply reply = nextReply(mContext);
        return reply->type == REDIS_REPLY_STRING ? textOf(reply.get()) : std::string();
    }

private:
    static constexpr int pipelined = 500; ///< two commands for each of 250 posts

    int mPort;
    redisContext* mContext;
    int mUnanswered = 0;
};

} // namespace

std::unique_ptr<ISystem> connectSystem(const std::vector<std::string>& arguments)
{
    if (arguments.size() != 1)
        throw std::invalid_argument("PORT");
    return std::make_unique<Redis>(std::stoi(arguments[0]));
}
