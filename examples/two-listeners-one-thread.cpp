// Two listeners share one event thread, so they can share data without a lock. Exits 0 when both have
// received their value, 1 when they have not within five seconds.

#include <chrono>
#include <cstdio>
#include <future>
#include <map>
#include <string>
#include <utility>

#include "common/EventThread.h"
#include "statusmanager/StatusManager.h"

namespace
{

/// The texts that both listeners write. Only the event thread uses them until it has stopped.
struct Board
{
    std::map<std::string, std::string> lines;
    std::promise<void> complete;
};

class Writer : public IStatusUpdateListener
{
public:
    Writer(Board& board, std::string title) : mBoard(board), mTitle(std::move(title)) {}

    // A thread runs its callbacks one after the other, so this never runs for both listeners at once. A slow
    // callback delays only the other listener.
    void onStatusUpdate(StatusMap updates) override
    {
        for (const auto& [key, value] : updates)
        {
            const bool added = mBoard.lines.insert_or_assign(mTitle, value).second;
            if (added && mBoard.lines.size() == 2)
                mBoard.complete.set_value();
        }
    }

    void onEventUpdate(std::string, std::string) override {}

private:
    Board& mBoard;
    const std::string mTitle;
};

} // namespace

int main()
{
    StatusManager* manager = StatusManager::getInstance(false);
    manager->postStatus({{"example.door", "open"}, {"example.lamp", "on"}});

    Board board;
    Writer door(board, "the door");
    Writer lamp(board, "the lamp");
    Orvane::EventThread thread("board", 0);
    manager->registerListener(&door, &thread);
    manager->registerListener(&lamp, &thread);
    manager->registerForStatus(&door, "example.door");
    manager->registerForStatus(&lamp, "example.lamp");
    const bool complete =
        board.complete.get_future().wait_for(std::chrono::seconds(5)) == std::future_status::ready;

    manager->unregisterListener(&door);
    manager->unregisterListener(&lamp);
    thread.stop(); // only now this thread may read the board
    for (const auto& [title, value] : board.lines)
        std::printf("%s is %s\n", title.c_str(), value.c_str());
    return complete ? 0 : 1;
}
