#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <systemd/sd-bus.h>
#include <thread>
#include <utility>

#include "benchmarks/road/System.h"

namespace
{

constexpr const char* name = "org.example.Status"; // also the interface's name
constexpr const char* path = "/status";

void check(int result, const char* what)
{
    if (result < 0)
        throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
}

sd_bus* connected(const std::string& address)
{
    sd_bus* bus = nullptr;
    check(sd_bus_new(&bus), "sd_bus_new");
    check(sd_bus_set_address(bus, address.c_str()), "sd_bus_set_address");
    check(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
    check(sd_bus_start(bus), "sd_bus_start");
    return bus;
}

void processOnOwnThread(sd_bus* bus)
{
    std::thread(
        [bus]
        {
            while (true)
            {
                const int done = sd_bus_process(bus, nullptr);
                check(done, "sd_bus_process");
                if (done == 0)
                    check(sd_bus_wait(bus, UINT64_MAX), "sd_bus_wait");
            }
        })
        .detach();
}

// The bus keeps no values. A poster keeps its values and answers queries.
class Values
{
public:
    explicit Values(sd_bus* bus)
    {
        check(sd_bus_add_object(bus, nullptr, path, &Values::answer, this), "sd_bus_add_object");
        check(sd_bus_request_name(bus, name, SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING),
              "sd_bus_request_name");
        processOnOwnThread(bus);
    }

    void set(const std::string& key, const std::string& value)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mValues[key] = value;
    }

private:
    static int answer(sd_bus_message* message, void* self, sd_bus_error*)
    {
        const char* key = nullptr;
        if (sd_bus_message_is_method_call(message, name, "Get") <= 0 ||
            sd_bus_message_read(message, "s", &key) < 0)
            return 0;
        return sd_bus_reply_method_return(message, "s", static_cast<Values*>(self)->get(key).c_str());
    }

    std::string get(const std::string& key)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mValues[key];
    }

    std::mutex mMutex;
    std::map<std::string, std::string> mValues;
};

class Dbus : public ISystem
{
public:
    explicit Dbus(std::string address) : mAddress(std::move(address)), mBus(connected(mAddress)) {}

    void subscribe(const std::vector<std::string>&, Delivery deliver) override
    {
        mDeliver = std::move(deliver);
        sd_bus* bus = connected(mAddress);
        check(sd_bus_match_signal(bus, nullptr, nullptr, path, name, "Changed", &Dbus::onChanged, this),
              "sd_bus_match_signal");
        processOnOwnThread(bus);
    }

    bool deliversCurrentValues() const override { return false; }

    void post(const std::string& key, const std::string& value) override
    {
        if (!mValues)
            mValues = std::make_unique<Values>(connected(mAddress));
        mValues->set(key, value);
        check(sd_bus_emit_signal(mBus, path, name, "Changed", "ss", key.c_str(), value.c_str()),
              "sd_bus_emit_signal");
    }

    void flush() override { check(sd_bus_flush(mBus), "sd_bus_flush"); }

    void sync() override
    {
        check(sd_bus_call_method(mBus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "GetId", nullptr, nullptr, ""),
              "GetId");
    }

    std::optional<std::string> query(const std::string& key) override
    {
        sd_bus_message* reply = nullptr;
        const char* value = nullptr;
        check(sd_bus_call_method(mBus, name, path, name, "Get", nullptr, &reply, "s", key.c_str()), "Get");
        check(sd_bus_message_read(reply, "s", &value), "sd_bus_message_read");
        std::string text = value;
        sd_bus_message_unref(reply);
        return text;
    }

private:
    static int onChanged(sd_bus_message* message, void* self, sd_bus_error*)
    {
        const char* key = nullptr;
        const char* value = nullptr;
        check(sd_bus_message_read(message, "ss", &key, &value), "sd_bus_message_read");
        static_cast<Dbus*>(self)->mDeliver(key, value);
        return 0;
    }

    std::string mAddress;
    sd_bus* mBus;
    std::unique_ptr<Values> mValues;
    Delivery mDeliver;
};

} // namespace

std::unique_ptr<ISystem> connectSystem(const std::vector<std::string>& arguments)
{
    if (arguments.size() != 1)
        throw std::invalid_argument("ADDRESS");
    return std::make_unique<Dbus>(arguments[0]);
}
