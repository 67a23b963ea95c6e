#include "mqttlink/MqttLink.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace
{

constexpr int quality = 1; // at least once
constexpr unsigned mostUnderWay = 20;

/// Properties of a message, which the library's functions copy.
class Properties
{
public:
    Properties() = default;
    ~Properties() { mosquitto_property_free_all(&mList); }
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    void addExpiry(uint32_t seconds)
    {
        mosquitto_property_add_int32(&mList, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, seconds);
    }
    const mosquitto_property* get() const { return mList; }

private:
    mosquitto_property* mList = nullptr;
};

std::string reasonOf(int result)
{
    return result == MOSQ_ERR_ERRNO ? std::generic_category().message(errno) : mosquitto_strerror(result);
}

void require(int result)
{
    if (result == MOSQ_ERR_NOMEM)
        throw std::bad_alloc();
    if (result != MOSQ_ERR_SUCCESS)
        throw MqttError(reasonOf(result));
}

bool isReadable(const std::string& file)
{
    return access(file.c_str(), R_OK) == 0;
}

void requireReadable(const std::string& file)
{
    if (!isReadable(file))
        throw MqttError(file + " cannot be read: " + std::generic_category().message(errno));
}

bool isFolder(const std::string& path)
{
    return access((path + "/.").c_str(), F_OK) == 0;
}

// Reason codes from here on are failures.
constexpr int firstFailure = 0x80;

} // namespace

// The thread may outlive the link, and the whole of main(). So it holds what it uses.
struct MqttLink::Search
{
    std::unique_ptr<mosquitto, Destroyer> client;
    Descriptor finished{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::string host;
    int port = 0;
    int keepAlive = 0;
    int result = 0; // read once `finished` is readable
    int error = 0;

    void run()
    {
        result = mosquitto_connect_async(client.get(), host.c_str(), port, keepAlive);
        error = errno;
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(finished.number(), &one, sizeof(one));
    }
};

MqttLink::MqttLink(const ServerOptions& options, const std::string& host, const std::string& clientId,
                   const std::optional<Message>& will, IMqttReceiver& receiver)
    : mReceiver(receiver), mSearch(std::make_shared<Search>())
{
    mosquitto* const client = mosquitto_new(clientId.c_str(), true, this);
    if (client == nullptr)
        throw MqttError(std::generic_category().message(errno));
    mSearch->client.reset(client);
    prepare(options, will);
    startSearch(options, host);
}

MqttLink::~MqttLink()
{
    if (!mIsSearching)
        mSearch->client.reset(); // calls nothing back any more
}

void MqttLink::prepare(const ServerOptions& options, const std::optional<Message>& will)
{
    mosquitto* const client = mSearch->client.get();
    require(mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION,
                                 options.isVersion5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311));
    require(mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1));
    if (will)
        require(mosquitto_will_set(client, will->topic.c_str(), static_cast<int>(will->payload.size()),
                                   will->payload.data(), quality, will->isRetained));
    if (!options.isInsecure)
        secure(options);
    authenticate(options);
    setCallbacks();
}

void MqttLink::secure(const ServerOptions& options)
{
    mosquitto* const client = mSearch->client.get();
    requireReadable(options.ca);
    const bool hasFolder = isFolder(options.ca);
    const bool hasCertificate = !options.certificate.empty();
    if (hasCertificate)
    {
        requireReadable(options.certificate);
        requireReadable(options.key);
    }
    if (!options.keyEngine.empty())
        useEngine(options.keyEngine);
    require(mosquitto_tls_set(client, hasFolder ? nullptr : options.ca.c_str(),
                              hasFolder ? options.ca.c_str() : nullptr,
                              hasCertificate ? options.certificate.c_str() : nullptr,
                              hasCertificate ? options.key.c_str() : nullptr, nullptr));
    if (!options.alpn.empty())
        require(mosquitto_string_option(client, MOSQ_OPT_TLS_ALPN, options.alpn.c_str()));
}

void MqttLink::useEngine(const std::string& name)
{
    mosquitto* const client = mSearch->client.get();
    if (mosquitto_string_option(client, MOSQ_OPT_TLS_ENGINE, name.c_str()) != MOSQ_ERR_SUCCESS)
        throw MqttError("OpenSSL has no engine " + name);
    require(mosquitto_string_option(client, MOSQ_OPT_TLS_KEYFORM, "engine"));
}

void MqttLink::authenticate(const ServerOptions& options)
{
    if (options.user.empty())
        return;
    std::string password;
    if (!options.passwordFile.empty())
    {
        requireReadable(options.passwordFile);
        password = readPassword(options.passwordFile);
    }
    require(mosquitto_username_pw_set(mSearch->client.get(), options.user.c_str(),
                                      options.passwordFile.empty() ? nullptr : password.c_str()));
}

void MqttLink::setCallbacks()
{
    mosquitto* const client = mSearch->client.get();
    mosquitto_connect_v5_callback_set(
        client,
        [](mosquitto*, void* self, int reason, int, const mosquitto_property* properties)
        {
            MqttLink& link = *static_cast<MqttLink*>(self);
            if (reason != 0)
            {
                link.mRefusal = reason >= firstFailure ? mosquitto_reason_string(reason)
                                                       : mosquitto_connack_string(reason);
                return;
            }
            uint16_t most = mostUnderWay;
            mosquitto_property_read_int16(properties, MQTT_PROP_RECEIVE_MAXIMUM, &most, false);
            link.mReceiver.onAccepted(std::min<unsigned>(most, mostUnderWay));
        });
    mosquitto_disconnect_v5_callback_set(client,
                                         [](mosquitto*, void* self, int reason, const mosquitto_property*)
                                         {
                                             MqttLink& link = *static_cast<MqttLink*>(self);
                                             if (reason >= firstFailure && link.mRefusal.empty())
                                                 link.mRefusal = mosquitto_reason_string(reason);
                                         });
    mosquitto_publish_v5_callback_set(
        client,
        [](mosquitto*, void* self, int message, int reason, const mosquitto_property*)
        {
            static_cast<MqttLink*>(self)->mReceiver.onAcknowledged(
                message, reason >= firstFailure ? mosquitto_reason_string(reason) : "");
        });
    mosquitto_subscribe_callback_set(client,
                                     [](mosquitto*, void* self, int, int count, const int* granted)
                                     {
                                         const bool isGranted =
                                             std::all_of(granted, granted + count,
                                                         [](int each) { return each < firstFailure; });
                                         static_cast<MqttLink*>(self)->mReceiver.onSubscribed(isGranted);
                                     });
    mosquitto_message_v5_callback_set(
        client,
        [](mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property* properties)
        {
            uint32_t expiry = 0;
            const bool expires = mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                                               &expiry, false) != nullptr;
            const std::string payload(static_cast<const char*>(message->payload),
                                      static_cast<std::size_t>(message->payloadlen));
            static_cast<MqttLink*>(self)->mReceiver.onMessage(
                {message->topic, payload, message->retain, expires ? std::optional(expiry) : std::nullopt});
        });
}

void MqttLink::startSearch(const ServerOptions& options, const std::string& host)
{
    mSearch->host = host;
    mSearch->port = options.effectivePort();
    mSearch->keepAlive = static_cast<int>(options.keepAlive.count());
    if (!mSearch->finished.isOpen())
        throw MqttError(std::generic_category().message(errno));
    try
    {
        std::thread([search = mSearch] { search->run(); }).detach();
    }
    catch (const std::system_error& error)
    {
        throw MqttError(error.what());
    }
}

int MqttLink::descriptor() const
{
    return mIsSearching ? mSearch->finished.number() : mosquitto_socket(mSearch->client.get());
}

// The library does not say that it waits for the connection to be made.
short MqttLink::wanted() const
{
    const bool isWriter = !mIsSearching && (!mHasWritten || mosquitto_want_write(mSearch->client.get()));
    return static_cast<short>(POLLIN | (isWriter ? POLLOUT : 0));
}

void MqttLink::finishSearch()
{
    uint64_t count = 0;
    if (read(mSearch->finished.number(), &count, sizeof(count)) != sizeof(count))
        return;
    mIsSearching = false;
    mSearch->finished.close();
    errno = mSearch->error;
    check(mSearch->result);
}

void MqttLink::work(short events)
{
    if (mIsSearching)
        return finishSearch();
    mosquitto* const client = mSearch->client.get();
    if (events != 0 && (events & POLLIN) != events)
    {
        mHasWritten = true;
        check(mosquitto_loop_write(client, 1));
    }
    readAll();
    check(mosquitto_loop_misc(client));
    if (mosquitto_socket(client) == -1)
        throw MqttError(mRefusal.empty() ? "the connection is closed" : mRefusal);
}

// Whatever the poll says: TLS may have received more than it has returned.
void MqttLink::readAll()
{
    constexpr int most = 32;
    for (int i = 0; i < most && mHasWritten; ++i)
    {
        errno = 0;
        check(mosquitto_loop_read(mSearch->client.get(), 1));
        if (errno == EAGAIN)
            return;
    }
}

void MqttLink::check(int result)
{
    if (result != MOSQ_ERR_SUCCESS && !mRefusal.empty())
        throw MqttError(mRefusal);
    require(result);
}

void MqttLink::subscribe(const std::string& topic)
{
    // Otherwise the server would hide that a new message is to be retained.
    check(mosquitto_subscribe_v5(mSearch->client.get(), nullptr, topic.c_str(), quality,
                                 MQTT_SUB_OPT_RETAIN_AS_PUBLISHED, nullptr));
}

std::optional<int> MqttLink::publish(const Message& message)
{
    Properties properties;
    if (message.expiry != 0)
        properties.addExpiry(message.expiry);
    int number = 0;
    const int result = mosquitto_publish_v5(mSearch->client.get(), &number, message.topic.c_str(),
                                            static_cast<int>(message.payload.size()), message.payload.data(),
                                            quality, message.isRetained, properties.get());
    if (result == MOSQ_ERR_OVERSIZE_PACKET || result == MOSQ_ERR_PAYLOAD_SIZE)
        return std::nullopt;
    check(result);
    return number;
}

void MqttLink::disconnect()
{
    if (!mIsSearching)
        mosquitto_disconnect(mSearch->client.get());
}
