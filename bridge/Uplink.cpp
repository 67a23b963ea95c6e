#include "bridge/Uplink.h"

#include <algorithm>
#include <charconv>
#include <random>
#include <utility>
#include <vector>

#include "bridge/Discovery.h"
#include "common/Logging.h"
#include "daemon/SystemClock.h"
#include "mqttlink/ServerName.h"
#include "protocol/ClientDocuments.h"

OV_LOG_CONTROL_WORDS;

namespace
{

constexpr Clock::duration tick = std::chrono::seconds(1); // between two looks at the connection
constexpr std::chrono::seconds patience{30};              // until a connection is accepted
constexpr std::chrono::seconds closePatience{2};
constexpr std::chrono::seconds onlinePause{1}; // between two corrections
constexpr std::size_t longestBatch = std::size_t{64} * 1024;
constexpr unsigned mostRefusalLines = 5; // of a session

uint64_t randomUpTo(uint64_t most)
{
    static std::random_device device;
    return std::uniform_int_distribution<uint64_t>(0, most)(device);
}

int64_t milliseconds()
{
    return static_cast<int64_t>(microsecondsOf(CLOCK_REALTIME) / 1000);
}

int64_t seconds()
{
    return milliseconds() / 1000;
}

// The session number in a message of the topic `online`, of this bridge or an earlier one.
int64_t sessionIn(const std::string& payload)
{
    constexpr std::string_view name = "\"session\":";
    const std::size_t at = payload.find(name);
    int64_t session = 0;
    if (at != std::string::npos)
        std::from_chars(payload.data() + at + name.size(), payload.data() + payload.size(), session);
    return session;
}

bool isOfflineIn(const std::string& payload)
{
    return payload.find("\"online\":false") != std::string::npos;
}

// {"<first>,"<name>":"<value>"}
std::string withText(const std::string& first, const char* name, const std::string& value)
{
    return "{" + first + "," + BrokerProtocol::writeText(name, value).substr(1);
}

std::string withMap(const std::string& first, const char* name, const ValueBook::Values& values)
{
    return "{" + first + "," + BrokerProtocol::writeMap(name, values).substr(1);
}

std::string member(const char* name, int64_t number)
{
    return "\"" + std::string(name) + "\":" + std::to_string(number);
}

EventRing::Limits limitsOf(const BridgeOptions& options)
{
    EventRing::Limits limits;
    limits.events = options.mostEvents;
    limits.bytes = options.mostEventBytes;
    return limits;
}

} // namespace

Uplink::Uplink(const BridgeOptions& options, ValueBook& book)
    : mOptions(options), mBook(book), mTopics(options.prefix, options.device), mFile(options.file),
      mRecord(mFile), mRing(mFile, limitsOf(options)), mDown(options, mFile),
      mBackoff(randomUpTo, options.longestPause)
{
    mSession = mFile.numberOf("session");
}

void Uplink::restart(TimePoint now)
{
    leave();
    mTopics = Topics(mOptions.prefix, mOptions.device);
    mRing.setLimits(limitsOf(mOptions));
    mBackoff.setMost(mOptions.longestPause);
    mHasState = false;
    mNextAttempt = now;
}

void Uplink::addEvent(const std::string& name, const std::string& value)
{
    mRing.add(name, value, milliseconds());
}

// ------------------------------------------------------------------------------------------------ connection

TimePoint Uplink::due(TimePoint now) const
{
    if (mRing.hasUnwritten())
        return now;
    if (mStage == Stage::Away)
        return std::min(mNextAttempt, now + tick);
    TimePoint due = now + tick;
    if (mStage == Stage::Waiting && mHasState)
        return now;
    if (mStage != Stage::Online || room() == 0)
        return due;
    due = mDown.hasAnswer() ? now : std::min(due, mNextOnline);
    if (roomForValues() > 0)
        due = std::min(due, valuesDue());
    if (mRing.size() > eventsUnderWay())
        due = std::min(due, now + tick / mOptions.eventRate);
    return due;
}

std::size_t Uplink::eventsUnderWay() const
{
    return static_cast<std::size_t>(std::count_if(mUnderWay.begin(), mUnderWay.end(),
                                                  [](const auto& sent) { return sent.second.event != 0; }));
}

TimePoint Uplink::valuesDue() const
{
    return isDocument() ? std::max(mBook.nextDue(), mNextBatch) : mBook.nextDue();
}

void Uplink::work(short events, TimePoint now)
{
    keepFile(now);
    if (mStage == Stage::Away && now >= mNextAttempt)
        open(now);
    if (!mLink)
        return;
    try
    {
        mLink->work(events);
        advance(now);
        const bool isLimited =
            mStage == Stage::Connecting || mStage == Stage::Subscribing || mStage == Stage::Closing;
        if (isLimited && now >= mDeadline)
            throw MqttError("no answer");
    }
    catch (const MqttError& error)
    {
        lost(error.what(), now);
    }
}

// A session's number must be higher than all before, also when the file is lost.
void Uplink::open(TimePoint now)
{
    mSession = std::max(mSession + 1, seconds());
    mFile.write([this](sqlite3* database) { BridgeFile::setNumber(database, "session", mSession); });
    mStage = Stage::Connecting;
    mDeadline = now + patience;
    mIsOvertaken = false;
    mRefusals = 0;
    mRing.rewind();
    mUnderWay.clear();
    try
    {
        mLink.emplace(mOptions, ServerName::pick(mOptions.server, mOptions.device),
                      mOptions.effectiveClientId(), MqttLink::Message{mTopics.online(), condition(false)},
                      static_cast<IMqttReceiver&>(*this));
    }
    catch (const MqttError& error)
    {
        lost(error.what(), now);
    }
}

void Uplink::lost(const std::string& reason, TimePoint now)
{
    if (mStage == Stage::Closing)
    {
        leave();
        mStage = Stage::Closed;
        return;
    }
    const auto pause = mBackoff.next(mStage == Stage::Online ? now - mOnlineSince : Clock::duration::zero());
    OV_LOG(2, "No connection to the server %s: %s; trying again in %lld ms", mOptions.server.c_str(),
           reason.c_str(), static_cast<long long>(pause.count()));
    leave();
    mNextAttempt = now + pause;
}

void Uplink::leave()
{
    if (mLink)
        mLink->disconnect();
    mLink.reset();
    mStage = Stage::Away;
    mUnderWay.clear();
    mRing.rewind();
}

void Uplink::onAccepted(unsigned receiveMaximum)
{
    mWindow = receiveMaximum;
    mSubscriptionsLeft = -1; // none is asked for yet
    mStage = Stage::Subscribing;
}

void Uplink::onSubscribed(bool isGranted)
{
    if (!isGranted)
        OV_LOG(2, "The server refuses a subscription to %s or its commands", mTopics.online().c_str());
    --mSubscriptionsLeft;
}

void Uplink::advance(TimePoint now)
{
    if (mIsOvertaken)
        throw MqttError("a session with a higher number exists");
    if (mStage == Stage::Subscribing && mSubscriptionsLeft < 0)
        subscribe();
    if (mStage == Stage::Subscribing && mSubscriptionsLeft == 0)
        mStage = Stage::Waiting;
    if (mStage == Stage::Waiting && mHasState)
        beginFilling();
    if (mStage == Stage::Filling)
        fill(now);
    if (mStage == Stage::Online)
        sendWhatIsDue(now);
    const auto isOffline = [](const auto& sent) { return sent.second.isOffline; };
    if (mStage == Stage::Closing && std::none_of(mUnderWay.begin(), mUnderWay.end(), isOffline))
    {
        leave();
        mStage = Stage::Closed;
    }
}

// A late will of an earlier session can hide this session, so the bridge watches its own topic.
void Uplink::subscribe()
{
    std::vector<std::string> topics = mDown.subscriptions(mTopics);
    topics.push_back(mTopics.online());
    if (isDocument())
        topics.push_back(mTopics.rebirth());
    mSubscriptionsLeft = static_cast<int>(topics.size());
    for (const std::string& topic : topics)
        mLink->subscribe(topic);
}

void Uplink::onMessage(const MqttLink::Received& message)
{
    mDown.take(mTopics, message, Clock::now());
    if (message.topic == mTopics.rebirth())
        mIsBirthWanted = true;
    if (message.topic != mTopics.online())
        return;
    const int64_t session = sessionIn(message.payload);
    if (session > mSession)
    {
        mSession = session;
        mIsOvertaken = true;
    }
    else if (mStage == Stage::Online && (session < mSession || isOfflineIn(message.payload)))
        mNextOnline = std::min(mNextOnline, Clock::now() + onlinePause);
}

void Uplink::close(TimePoint now)
{
    const bool wasOnline = mStage == Stage::Online;
    try
    {
        if (wasOnline)
            send({mTopics.online(), condition(false)}, {{}, 0, true});
    }
    catch (const MqttError&)
    {
        mUnderWay.clear();
    }
    if (!wasOnline)
        leave();
    mStage = wasOnline ? Stage::Closing : Stage::Closed;
    mDeadline = now + closePatience;
}

// ----------------------------------------------------------------------------------------------------- state

void Uplink::beginFilling()
{
    mStage = Stage::Filling;
    mBook.clearQueue();
    mIsFirst = true;
    mRecord.add(mTopics.online());
    mDeletions = mRecord.topics();
    mDeletions.erase(mTopics.online());
    mDescriptions = Discovery::messagesOf(mOptions, mTopics, STATUSBRIDGE_VERSION);
    for (const auto& [topic, description] : mDescriptions)
    {
        mRecord.add(topic);
        mDeletions.erase(topic);
    }
    if (isDocument())
    {
        mRecord.add(mTopics.birth());
        mDeletions.erase(mTopics.birth());
        mIsBirthWanted = true;
        mNextBirth = TimePoint();
        mSequence = 0;
    }
    else
    {
        for (const auto& [key, value] : mBook.values())
        {
            mRecord.add(mTopics.status(key));
            mDeletions.erase(mTopics.status(key));
        }
    }
    mRecord.commit();
}

void Uplink::fill(TimePoint now)
{
    while (room() > 0 && !mDescriptions.empty())
    {
        const auto description = mDescriptions.extract(mDescriptions.begin());
        send({description.key(), description.mapped()});
    }
    if (isDocument() && mIsBirthWanted && room() > 0)
        sendBirth(now);
    while (!isDocument() && room() > 0)
    {
        const ValueBook::Due due = mBook.takeBehind(mLastFilled, std::exchange(mIsFirst, false), now);
        if (!due)
            break;
        mLastFilled = *due.key;
        sendValue(*due.key, *due.value);
    }
    while (room() > 0 && !mDeletions.empty())
        sendDeletion(mDeletions.extract(mDeletions.begin()).value());
    if (room() == 0)
        return;
    mStage = Stage::Online;
    mOnlineSince = now;
    mSince = seconds();
    mEventAllowance = 0;
    mAllowanceSince = now;
    OV_LOG(5, "Online at %s, session %lld", mOptions.server.c_str(), static_cast<long long>(mSession));
    sendOnline(now);
}

void Uplink::sendWhatIsDue(TimePoint now)
{
    if (now >= mNextOnline && room() > 0)
        sendOnline(now);
    if (isDocument())
        sendBatch(now);
    else
        sendValues(now);
    sendAnswers();
    sendEvents(now);
}

std::string Uplink::condition(bool isOnline) const
{
    if (!isOnline)
        return R"({"online":false,)" + member("session", mSession) + "," + member("time", seconds()) + "}";
    return R"({"online":true,)" + member("session", mSession) + "," +
           R"("version":")" STATUSBRIDGE_VERSION R"("})";
}

void Uplink::sendOnline(TimePoint now)
{
    std::string text = condition(true);
    text.insert(text.size() - 1, "," + member("since", mSince) + "," + member("time", seconds()) + "," +
                                     member("eventsDropped", mRing.dropped()));
    if (!mOptions.commands.empty())
        text.insert(text.size() - 1, "," + member("commandsRefused", static_cast<int64_t>(mDown.refused())));
    const auto expiry = mOptions.isVersion5 ? mOptions.onlineExpiry : std::chrono::seconds(0);
    send({mTopics.online(), text, true, static_cast<uint32_t>(expiry.count())});
    mNextOnline = expiry.count() == 0 ? TimePoint::max() : now + expiry / 3;
}

// A part of the room is left for events, so that values that change all the time do not keep them back for
// ever.
std::size_t Uplink::roomForValues() const
{
    constexpr std::size_t part = 5;
    const std::size_t reserved = mRing.size() > 0 ? mWindow / part : 0;
    return room() > reserved ? room() - reserved : 0;
}

void Uplink::sendValues(TimePoint now)
{
    std::vector<std::pair<std::string, std::string>> batch;
    for (std::size_t left = roomForValues(); left > 0; --left)
    {
        const ValueBook::Due due = mBook.takeDue(now);
        if (!due)
            break;
        if (!due.value->empty())
            mRecord.add(mTopics.status(*due.key));
        batch.emplace_back(*due.key, *due.value);
    }
    if (mRecord.hasAdditions())
        mRecord.commit();
    for (const auto& [key, value] : batch)
    {
        if (!value.empty())
            sendValue(key, value);
        else if (mRecord.topics().count(mTopics.status(key)) != 0)
            sendDeletion(mTopics.status(key));
    }
}

void Uplink::sendBatch(TimePoint now)
{
    if (mIsBirthWanted && now >= mNextBirth && room() > 0)
        sendBirth(now);
    if (roomForValues() == 0 || valuesDue() > now)
        return;
    ValueBook::Values values;
    std::size_t bytes = 0;
    while (bytes < longestBatch)
    {
        const ValueBook::Due due = mBook.takeDue(now);
        if (!due)
            break;
        bytes += due.key->size() + due.value->size();
        values.emplace(*due.key, *due.value);
    }
    const bool isWhole = mBook.nextDue() > now;
    mNextBatch = isWhole ? now + mOptions.batch : now;
    const std::string head = member("session", mSession) + "," + member("sequence", ++mSequence) + "," +
                             member("time", milliseconds());
    send({mTopics.data(), withMap(head, "values", values), false});
}

// Values that wait are in the birth, so they need not be sent.
void Uplink::sendBirth(TimePoint now)
{
    mIsBirthWanted = false;
    mNextBirth = now + mOptions.rebirthPause;
    mBook.clearQueue();
    const std::string head = member("session", mSession) + "," + member("sequence", ++mSequence) + "," +
                             member("time", milliseconds());
    send({mTopics.birth(), withMap(head, "values", mBook.values())});
}

void Uplink::sendEvents(TimePoint now)
{
    const std::chrono::duration<double> passed = now - std::exchange(mAllowanceSince, now);
    mEventAllowance = std::min(mEventAllowance + passed.count() * mOptions.eventRate,
                               std::max(1.0, static_cast<double>(mOptions.eventRate)));
    while (room() > 0 && mEventAllowance >= 1)
    {
        const WaitingEvent* event = mRing.next();
        if (event == nullptr)
            return;
        const std::string head = member("id", event->id) + "," + member("time", event->time);
        const MqttLink::Message message{mTopics.event(event->name), withText(head, "value", event->value),
                                        false};
        const int64_t id = event->id;
        mRing.taken();
        mEventAllowance -= 1;
        if (!send(message, {{}, id}))
            mRing.acknowledged(id);
    }
}

void Uplink::sendAnswers()
{
    while (room() > 0)
    {
        const std::optional<MqttLink::Message> answer = mDown.nextAnswer();
        if (!answer)
            return;
        send(*answer);
    }
}

// A deletion of the same topic that is under way is not the last word any more.
void Uplink::sendValue(const std::string& key, const std::string& value)
{
    const std::string topic = mTopics.status(key);
    for (auto& [number, sent] : mUnderWay)
    {
        if (sent.topic == topic)
            sent.topic.clear();
    }
    send({topic, value});
}

void Uplink::sendDeletion(const std::string& topic)
{
    send({topic, ""}, {topic});
}

// Returns false if the message can never be sent.
bool Uplink::send(const MqttLink::Message& message, Sent sent)
{
    const std::optional<int> number =
        message.topic.size() > Topics::longest ? std::nullopt : mLink->publish(message);
    if (number)
        mUnderWay.insert_or_assign(*number, std::move(sent));
    else if (++mRefusals <= mostRefusalLines)
        OV_LOG(2, "A message to %.200s is longer than the server takes", message.topic.c_str());
    return number.has_value();
}

void Uplink::onAcknowledged(int message, const std::string& refusal)
{
    const auto found = mUnderWay.find(message);
    if (found == mUnderWay.end())
        return;
    const Sent sent = std::move(found->second);
    mUnderWay.erase(found);
    if (!refusal.empty() && ++mRefusals <= mostRefusalLines)
        OV_LOG(2, "The server has refused a message: %s", refusal.c_str());
    if (sent.event != 0)
        mRing.acknowledged(sent.event);
    if (!sent.topic.empty())
        mRecord.remove(sent.topic);
}

// Acknowledged events and deleted topics can wait; events that were added cannot.
void Uplink::keepFile(TimePoint now)
{
    mFile.reopen(now);
    if (now >= mNextKeep)
    {
        mNextKeep = now + tick;
        mRecord.commit();
        mRing.commit();
    }
    else if (mRing.hasUnwritten())
        mRing.commit();
}
