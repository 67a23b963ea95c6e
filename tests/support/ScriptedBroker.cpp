#include "tests/support/ScriptedBroker.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>
#include <zmq.hpp>

#include "tests/support/Wait.h"

namespace
{

using Clock = std::chrono::steady_clock;

// The client has the subscription some time after the handshake: its socket looks for arrivals about every 3
// ms at most.
constexpr std::chrono::milliseconds subscriptionTravel{10};
constexpr std::chrono::milliseconds pollInterval{1};

zmq::socket_t bound(zmq::context_t& context, zmq::socket_type type, int port)
{
    zmq::socket_t socket(context, type);
    socket.set(zmq::sockopt::linger, 0);
    const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    try
    {
        socket.bind(endpoint);
    }
    catch (const zmq::error_t& error)
    {
        throw std::runtime_error("cannot bind " + endpoint + ": " + error.what() +
                                 " (a broker, or another test that needs this port, is running)");
    }
    return socket;
}

std::optional<ScriptedBroker::Frames> receive(zmq::socket_t& socket)
{
    ScriptedBroker::Frames frames;
    zmq::message_t frame;
    do
    {
        if (!socket.recv(frame, zmq::recv_flags::dontwait))
            return std::nullopt;
        frames.push_back(frame.to_string());
    } while (frame.more());
    return frames;
}

void send(zmq::socket_t& socket, const ScriptedBroker::Frames& frames)
{
    for (std::size_t i = 0; i < frames.size(); ++i)
    {
        const bool last = i + 1 == frames.size();
        socket.send(zmq::buffer(frames[i]), last ? zmq::send_flags::none : zmq::send_flags::sndmore);
    }
}

std::string join(const ScriptedBroker::Frames& frames)
{
    std::string text;
    for (const std::string& frame : frames)
        text += frame;
    return text;
}

} // namespace

struct ScriptedBroker::Sockets
{
    zmq::context_t context;
    zmq::socket_t request = bound(context, zmq::socket_type::router, 5555);
    zmq::socket_t post{context, zmq::socket_type::sub};
    zmq::socket_t handshakes{context, zmq::socket_type::pair};
    zmq::socket_t notify = bound(context, zmq::socket_type::xpub, 5557);

    explicit Sockets(Posts posts)
    {
        notify.set(zmq::sockopt::xpub_verbose, 1);
        if (posts == Posts::NotTaken)
            return;
        post = bound(context, zmq::socket_type::sub, 5556);
        post.set(zmq::sockopt::subscribe, "");
        if (zmq_socket_monitor(post.handle(), "inproc://handshakes", ZMQ_EVENT_HANDSHAKE_SUCCEEDED) != 0)
            throw zmq::error_t();
        handshakes.set(zmq::sockopt::linger, 0);
        handshakes.connect("inproc://handshakes");
    }
};

ScriptedBroker::ScriptedBroker(FirstAnswer firstAnswer, Posts posts)
    : mSockets(std::make_unique<Sockets>(posts)), mFirstAnswer(firstAnswer)
{
    answerWith([](const std::string& request) { return Frames{request == "Sync" ? "SyncAck" : "{}"}; });
    mThread = std::thread([this] { run(); });
}

ScriptedBroker::~ScriptedBroker()
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStop = true;
    }
    mThread.join();
}

void ScriptedBroker::answerWith(Answer answer)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mAnswer = std::make_shared<const Answer>(std::move(answer));
}

void ScriptedBroker::answerWith(Frames frames)
{
    answerWith([frames = std::move(frames)](const std::string&) { return frames; });
}

void ScriptedBroker::keepSilent()
{
    answerWith([](const std::string&) { return std::nullopt; });
}

void ScriptedBroker::reply(Frames frames)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mReplies.push_back(std::move(frames));
}

void ScriptedBroker::publish(Frames frames)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mPublications.push_back(std::move(frames));
}

std::vector<ScriptedBroker::Frames> ScriptedBroker::requests() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mRequests;
}

std::vector<ScriptedBroker::Frames> ScriptedBroker::posts() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mPosts;
}

Clock::time_point ScriptedBroker::lastPostTime() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mLastPost;
}

template <class Condition>
bool ScriptedBroker::waitUntil(Condition condition) const
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, testDeadline, condition);
}

bool ScriptedBroker::waitForRequests(std::size_t count) const
{
    return waitUntil([&] { return mRequests.size() >= count; });
}

bool ScriptedBroker::waitForPosts(std::size_t count) const
{
    return waitUntil([&] { return mPosts.size() >= count; });
}

bool ScriptedBroker::waitForPost(const std::string& text) const
{
    return waitUntil(
        [&]
        {
            return std::any_of(mPosts.begin(), mPosts.end(),
                               [&](const Frames& post) { return join(post) == text; });
        });
}

bool ScriptedBroker::waitForSubscriber(std::size_t count) const
{
    return waitUntil([&] { return mSubscribers >= count; });
}

// ------------------------------------------------------------------------------------- the broker's thread

void ScriptedBroker::run()
{
    std::vector<zmq::pollitem_t> items{{mSockets->request.handle(), 0, ZMQ_POLLIN, 0},
                                       {mSockets->post.handle(), 0, ZMQ_POLLIN, 0},
                                       {mSockets->notify.handle(), 0, ZMQ_POLLIN, 0},
                                       {mSockets->handshakes.handle(), 0, ZMQ_POLLIN, 0}};
    for (;;)
    {
        zmq::poll(items, pollInterval);
        receivePosts();
        receiveRequests();
        receiveSubscriptions();
        receiveHandshakes();
        answerHeld();
        sendQueued();
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mStop)
            break;
    }
    zmq_socket_monitor(mSockets->post.handle(), nullptr, 0);
    mSockets.reset();
}

void ScriptedBroker::receiveRequests()
{
    while (std::optional<Frames> message = receive(mSockets->request))
    {
        // Identity, delimiter, and the request itself.
        const auto body = message->begin() + std::min<std::ptrdiff_t>(2, std::ptrdiff_t(message->size()));
        Request request{Frames(message->begin(), body), join(Frames(body, message->end()))};
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mRequests.emplace_back(body, message->end());
            mChanged.notify_all();
        }
        const bool known = std::count(mKnown.begin(), mKnown.end(), request.envelope.front()) != 0;
        if (!known)
            mKnown.push_back(request.envelope.front());
        if (known || mFirstAnswer == FirstAnswer::AtOnce)
            answer(std::move(request));
        else
            mHeld.push_back(std::move(request));
    }
}

void ScriptedBroker::receivePosts()
{
    while (std::optional<Frames> post = receive(mSockets->post))
    {
        if (*post == Frames{"Sync"})
            continue;
        const std::lock_guard<std::mutex> lock(mMutex);
        mLastPost = Clock::now();
        mPosts.push_back(std::move(*post));
        mChanged.notify_all();
    }
}

void ScriptedBroker::receiveSubscriptions()
{
    while (std::optional<Frames> message = receive(mSockets->notify))
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (message->front() == std::string(1, '\1'))
            ++mSubscribers;
        mChanged.notify_all();
    }
}

void ScriptedBroker::receiveHandshakes()
{
    while (receive(mSockets->handshakes))
    {
        ++mHandshakes;
        mLastHandshake = Clock::now();
    }
}

void ScriptedBroker::answerHeld()
{
    if (mHeld.empty() || mHandshakes < mKnown.size() || Clock::now() < mLastHandshake + subscriptionTravel)
        return;
    for (Request& request : std::exchange(mHeld, {}))
        answer(std::move(request));
}

void ScriptedBroker::sendQueued()
{
    std::deque<Frames> publications;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        publications.swap(mPublications);
    }
    for (const Frames& frames : publications)
        send(mSockets->notify, frames);

    while (!mUnanswered.empty())
    {
        Frames frames;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            if (mReplies.empty())
                return;
            frames = std::move(mReplies.front());
            mReplies.pop_front();
        }
        sendReply(mUnanswered.front(), frames);
        mUnanswered.pop_front();
    }
}

void ScriptedBroker::answer(Request request)
{
    std::shared_ptr<const Answer> script;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        script = mAnswer;
    }
    if (const std::optional<Frames> frames = (*script)(request.text))
        sendReply(request, *frames);
    else
        mUnanswered.push_back(std::move(request));
}

void ScriptedBroker::sendReply(const Request& request, const Frames& frames)
{
    Frames message = request.envelope;
    message.insert(message.end(), frames.begin(), frames.end());
    send(mSockets->request, message);
}
