#ifndef STATUSCTL_SCREEN_TOPSCREEN_H
#define STATUSCTL_SCREEN_TOPSCREEN_H

#include <chrono>
#include <deque>
#include <string>

#include "statusctl/screen/TopModel.h"

/// The terminal of the live screen. It is restored however the process ends: by the destructor, by
/// leaveWith(), and on a signal. There is at most one.
class TopScreen
{
public:
    /// @throws Failure if the process has no terminal
    static void checkTerminal();

    /// @throws Failure if this terminal cannot show it
    explicit TopScreen(bool useColors);
    ~TopScreen();

    TopScreen(const TopScreen&) = delete;
    TopScreen& operator=(const TopScreen&) = delete;

    void draw(const TopModel& model, bool hasBroker);

    /// The keys on the screen after the last draw().
    const std::deque<std::string>& shown() const { return mShown; }

    enum class Wish
    {
        Stay,
        Leave,
    };

    /// Waits for a key, at most this long, and handles it. A signal ends the wait.
    Wish readKey(std::chrono::milliseconds longest);

private:
    void drawHead(const TopModel& model, bool hasBroker) const;
    struct Columns;
    void drawHeadings(int line) const;
    void drawRow(int line, const TopModel::Row& row) const;
    void drawEvents(const TopModel& model, int firstLine) const;
    /// @param text drawn as it is: escape texts from outside before
    void put(int line, int column, int width, const std::string& text) const;

    std::deque<std::string> mShown;
    std::string mFilter;
    std::size_t mFirst = 0; // the top row
    int mPage = 1;          // rows that fit
};

#endif
