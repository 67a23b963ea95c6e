#include "bridge/BrokerPoster.h"

#include <algorithm>
#include <utility>

#include "brokerlink/Messages.h"

namespace
{

constexpr std::chrono::seconds patience{5};

} // namespace

BrokerPoster::BrokerPoster(Next next, Taken taken)
    : mNext(std::move(next)), mTaken(std::move(taken)), mContext(1), mPosts(mContext, zmq::socket_type::pub)
{
    mPosts.set(zmq::sockopt::linger, 0);
    mPosts.connect(BrokerProtocol::postEndpoint);
}

void BrokerPoster::begin(TimePoint now)
{
    ask(Stage::Opening, BrokerProtocol::syncWord, now);
}

int BrokerPoster::descriptor()
{
    return mRequest ? mRequest->get(zmq::sockopt::fd) : -1;
}

bool BrokerPoster::hasMore()
{
    return mRequest && (mRequest->get(zmq::sockopt::events) & ZMQ_POLLIN) != 0;
}

void BrokerPoster::work(TimePoint now)
{
    if (hasMore())
        take(Messages::receive(*mRequest).value_or(""), now);
    else if (mStage != Stage::Idle && now >= mDeadline)
        begin(now);
}

void BrokerPoster::take(const std::string& answer, TimePoint now)
{
    const bool isAcknowledged = answer == BrokerProtocol::syncAckWord;
    if (mStage == Stage::Opening && (isAcknowledged || answer == BrokerProtocol::syncLostWord))
        return sendBatch(now);
    if (mStage == Stage::Confirming && isAcknowledged)
        return askForValues(now);
    const auto values = BrokerProtocol::readMapReply(answer);
    if (mStage != Stage::Reading || !values)
        return begin(now);
    rest();
    mTaken(*values);
}

void BrokerPoster::rest()
{
    mStage = Stage::Idle;
    mRequest.reset();
    mBatch.reset();
}

// After a failure, values are posted again, since that changes nothing. Events are posted once: twice would
// be two events.
void BrokerPoster::sendBatch(TimePoint now)
{
    const bool isFirst = !mBatch;
    if (isFirst)
        mBatch = mNext(now);
    else
        mBatch->events.clear();
    if (isFirst && mBatch->isEmpty())
        return rest();
    if (!mBatch->values.empty())
        send(BrokerProtocol::writeMap(BrokerProtocol::Key::postStatus, mBatch->values));
    for (const auto& [name, value] : mBatch->events)
        send(BrokerProtocol::writePostEvent(name, value));
    ask(Stage::Confirming, BrokerProtocol::syncWord, now);
}

void BrokerPoster::askForValues(TimePoint now)
{
    BrokerProtocol::Texts keys;
    for (const auto& [key, value] : mBatch->values)
        keys.push_back(key);
    ask(Stage::Reading, BrokerProtocol::writeList(BrokerProtocol::Key::getClientInfoValues, keys), now);
}

void BrokerPoster::ask(Stage stage, const std::string& request, TimePoint now)
{
    mStage = stage;
    mDeadline = now + patience;
    mRequest.emplace(mContext, zmq::socket_type::req);
    mRequest->set(zmq::sockopt::linger, 0);
    mRequest->connect(BrokerProtocol::requestEndpoint);
    mRequest->send(zmq::buffer(request), zmq::send_flags::dontwait);
}

// In frames, as the broker's clients send.
void BrokerPoster::send(const std::string& message)
{
    for (std::size_t at = 0; at < message.size(); at += BrokerProtocol::maxFrameBytes)
    {
        const std::size_t size = std::min(BrokerProtocol::maxFrameBytes, message.size() - at);
        const bool isLast = at + size == message.size();
        mPosts.send(zmq::buffer(message.data() + at, size),
                    isLast ? zmq::send_flags::dontwait
                           : zmq::send_flags::sndmore | zmq::send_flags::dontwait);
    }
}
