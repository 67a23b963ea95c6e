#include <stdexcept>
#include <utility>

#include "benchmarks/road/System.h"
#include "statusmanager/StatusManager.h"

namespace
{

class Listener : public IStatusUpdateListener
{
public:
    explicit Listener(ISystem::Delivery deliver) : mDeliver(std::move(deliver)) {}

    void onStatusUpdate(StatusMap updates) override
    {
        for (const auto& [key, value] : updates)
            mDeliver(key, value);
    }

    void onEventUpdate(std::string, std::string) override {}

private:
    ISystem::Delivery mDeliver;
};

class Product : public ISystem
{
public:
    void subscribe(const std::vector<std::string>& keys, Delivery deliver) override
    {
        mThread = std::make_unique<Orvane::EventThread>("Subscriber", 0);
        mListener = std::make_unique<Listener>(std::move(deliver));
        mManager->registerListener(mListener.get(), mThread.get());
        mManager->registerForStatus(mListener.get(), StatusKeys(keys.begin(), keys.end()));
    }

    bool deliversCurrentValues() const override { return true; }
    void post(const std::string& key, const std::string& value) override { mManager->postStatus(key, value); }
    void flush() override {}

    void sync() override
    {
        if (!mManager->sync(-1))
            throw std::runtime_error("no SyncAck");
    }

    std::optional<std::string> query(const std::string& key) override
    {
        return mManager->getClientInfoValue(key);
    }

private:
    StatusManager* mManager = StatusManager::getInstance(false);
    std::unique_ptr<Orvane::EventThread> mThread;
    std::unique_ptr<Listener> mListener;
};

} // namespace

std::unique_ptr<ISystem> connectSystem(const std::vector<std::string>&)
{
    return std::make_unique<Product>();
}
