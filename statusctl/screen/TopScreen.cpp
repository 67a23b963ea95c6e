#include "statusctl/screen/TopScreen.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <langinfo.h>
#include <mutex>
#include <poll.h>
#include <unistd.h>

#include "statusctl/base/Ending.h"
#include "statusctl/base/Failure.h"
#include "statusctl/text/Duration.h"
#include "statusctl/text/Text.h"

// Its macros would rename functions of ours (timeout, filter, ...).
#define NCURSES_NOMACROS 1
#include <curses.h>

namespace
{

constexpr short changedColor = 1;
constexpr short alarmColor = 2;
constexpr int escapeKey = 27;
constexpr int eraseKey = 127;

/// Draws text with these attributes while it lives.
class Look
{
public:
    explicit Look(attr_t attributes) : mAttributes(attributes) { wattr_on(stdscr, mAttributes, nullptr); }
    ~Look() { wattr_off(stdscr, mAttributes, nullptr); }

    Look(const Look&) = delete;
    Look& operator=(const Look&) = delete;

    static attr_t bold(short color) { return static_cast<attr_t>(COLOR_PAIR(color)) | A_BOLD; }

private:
    const attr_t mAttributes;
};

// Guards the screen. Never destroyed: threads may run until the process ends.
std::mutex& screenMutex()
{
    static std::mutex& mutex = *new std::mutex;
    return mutex;
}

void restore()
{
    if (!isendwin())
        endwin();
}

// Runs on the thread that ends the process. Keeps the mutex, so that nothing is drawn afterwards.
void restoreForGood()
{
    screenMutex().lock();
    restore();
}

std::string ageOf(const TopModel::Row& row)
{
    return row.isAgeKnown ? Duration::age(row.age) : "-";
}

std::string rateOf(const TopModel::Row& row)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", row.changesPerSecond);
    return row.changesPerSecond == 0 ? "" : text.data();
}

// As much of the text as fits. A character may take no column, one or two.
std::string startOf(const std::string& text, int columns)
{
    std::size_t end = 0;
    while (end < text.size())
    {
        std::mbstate_t state{};
        wchar_t character = 0;
        const std::size_t bytes = std::mbrtowc(&character, text.data() + end, text.size() - end, &state);
        columns -= std::abs(wcwidth(character)); // -1 is unknown: curses draws a blank
        if (columns < 0 || bytes == 0 || bytes > text.size())
            break;
        end += bytes;
    }
    return text.substr(0, end);
}

// A terminal that has gone sends SIGHUP only to processes that it controls. Others would read from it without
// a pause.
bool hasHungUp()
{
    pollfd item{STDIN_FILENO, POLLIN, 0};
    return poll(&item, 1, 0) > 0 && (item.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

// Values are UTF-8, whatever the user's locale.
void chooseUtf8()
{
    std::setlocale(LC_CTYPE, "");
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0)
        std::setlocale(LC_CTYPE, "C.UTF-8");
}

} // namespace

void TopScreen::checkTerminal()
{
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0)
        throw Failure(ExitCode::Failed, "no terminal; use \"statusctl watch\" instead");
}

TopScreen::TopScreen(bool useColors)
{
    chooseUtf8();
    // Not initscr(): that ends the process for an unknown terminal.
    if (newterm(nullptr, stdout, stdin) == nullptr)
        throw Failure(ExitCode::Failed, "unknown terminal type; check the variable TERM");
    setRestore(restoreForGood);
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    curs_set(0);
    set_escdelay(25);
    if (useColors && has_colors())
    {
        start_color();
        use_default_colors();
        init_pair(changedColor, COLOR_GREEN, -1);
        init_pair(alarmColor, COLOR_RED, -1);
    }
}

TopScreen::~TopScreen()
{
    const std::lock_guard<std::mutex> lock(screenMutex());
    restore();
}

void TopScreen::put(int line, int column, int width, const std::string& text) const
{
    if (width > 0)
        mvaddstr(line, column, startOf(text, width).c_str());
}

// The line of numbers, the filter, and the headings.
void TopScreen::drawHead(const TopModel& model, bool hasBroker) const
{
    put(0, 0, COLS, "statusctl top   " + std::to_string(model.keyCount()) + " keys");
    if (!hasBroker)
    {
        const Look look(Look::bold(alarmColor));
        put(0, COLS / 2, COLS - COLS / 2, "no broker");
    }
    put(1, 0, COLS,
        mFilter.empty() ? "type to filter, q to leave" : "filter: " + mFilter + "  (Esc clears it)");
}

// The positions of the columns. A narrow terminal shows only keys and values, a medium one leaves out the
// poster.
struct TopScreen::Columns
{
    static constexpr int widthForNumbers = 40;
    static constexpr int widthForPoster = 100;

    bool hasNumbers = COLS >= widthForNumbers;
    int numbers = hasNumbers ? 14 : 0; // AGE and CHANGES/S
    int poster = COLS >= widthForPoster ? 24 : 0;
    int age = std::max(10, (COLS - numbers - poster) * 2 / 5);
    int rate = age + 6;
    int posterBegin = age + numbers;
    int value = posterBegin + poster;
};

void TopScreen::drawHeadings(int line) const
{
    const Columns columns;
    const Look look(A_REVERSE);
    put(line, 0, COLS, std::string(static_cast<std::size_t>(COLS), ' '));
    put(line, 0, columns.age, "KEY");
    if (columns.hasNumbers)
    {
        put(line, columns.age, COLS - columns.age, "AGE");
        put(line, columns.rate, COLS - columns.rate, "PER S");
    }
    if (columns.poster > 0)
        put(line, columns.posterBegin, columns.poster, "POSTER");
    put(line, columns.value, COLS - columns.value, "VALUE");
}

void TopScreen::drawRow(int line, const TopModel::Row& row) const
{
    const Columns columns;
    put(line, 0, columns.age - 1, Text::escapedName(row.key));
    if (columns.hasNumbers)
    {
        put(line, columns.age, columns.rate - columns.age - 1, ageOf(row));
        put(line, columns.rate, columns.posterBegin - columns.rate - 1, rateOf(row));
    }
    put(line, columns.posterBegin, columns.poster - 1, row.poster);
    const Look look(row.hasJustChanged ? Look::bold(changedColor) : A_NORMAL);
    put(line, columns.value, COLS - columns.value, Text::escaped(row.value));
}

void TopScreen::drawEvents(const TopModel& model, int firstLine) const
{
    put(firstLine, 0, COLS, "EVENTS");
    int line = firstLine + 1;
    for (const Change& event : model.events())
    {
        if (line >= LINES)
            break;
        put(line++, 0, COLS,
            Timestamp::local(event.time) + " " + Text::escapedName(event.name) + " " +
                Text::escaped(event.value));
    }
}

void TopScreen::draw(const TopModel& model, bool hasBroker)
{
    const std::lock_guard<std::mutex> lock(screenMutex());
    constexpr int head = 3;
    const int eventLines = model.events().empty() ? 0 : std::max(2, LINES / 4);
    mPage = std::max(1, LINES - head - eventLines);
    const std::vector<TopModel::Row> rows = model.rows(mFilter, TopModel::Clock::now());
    const auto page = static_cast<std::size_t>(mPage);
    mFirst = std::min(mFirst, rows.size() > page ? rows.size() - page : 0);

    mShown.clear();
    for (std::size_t row = mFirst; row < rows.size() && row < mFirst + page; ++row)
        mShown.push_back(rows[row].key);
    werase(stdscr);
    drawHead(model, hasBroker);
    drawHeadings(head - 1);
    for (std::size_t row = mFirst; row < rows.size() && row < mFirst + page; ++row)
        drawRow(head + static_cast<int>(row - mFirst), rows[row]);
    if (eventLines > 0)
        drawEvents(model, LINES - eventLines);
    wrefresh(stdscr);
}

TopScreen::Wish TopScreen::readKey(std::chrono::milliseconds longest)
{
    const std::lock_guard<std::mutex> lock(screenMutex());
    wtimeout(stdscr, static_cast<int>(longest.count()));
    const auto page = static_cast<std::size_t>(mPage);
    const int key = wgetch(stdscr);
    switch (key)
    {
    case ERR:
        if (hasHungUp())
            return Wish::Leave;
        break;
    case KEY_DOWN:
        ++mFirst;
        break;
    case KEY_UP:
        mFirst -= std::min<std::size_t>(mFirst, 1);
        break;
    case KEY_NPAGE:
        mFirst += page;
        break;
    case KEY_PPAGE:
        mFirst -= std::min(mFirst, page);
        break;
    case escapeKey:
        mFilter.clear();
        break;
    case KEY_BACKSPACE:
    case eraseKey:
    case '\b':
        if (!mFilter.empty())
            mFilter.pop_back();
        break;
    case 'q':
        // While a filter is typed, q is an ordinary letter.
        if (mFilter.empty())
            return Wish::Leave;
        [[fallthrough]];
    default:
        if (key >= ' ' && key < eraseKey)
            mFilter += static_cast<char>(key);
    }
    return Wish::Stay;
}
