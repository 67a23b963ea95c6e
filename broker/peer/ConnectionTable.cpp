#include "broker/peer/ConnectionTable.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <unistd.h>

#include "daemon/Descriptor.h"

namespace
{

// At most this much of a table is read: fifty thousand connections.
constexpr std::size_t mostBytes = std::size_t{8} * 1024 * 1024;

// A line has 150 bytes, in tcp6 180.
constexpr std::size_t longestLine = 1024;

constexpr std::string_view established = "01";

// The words of a line that matter here.
enum Word
{
    Local = 1,
    Remote = 2,
    State = 3,
    Uid = 7,
    Inode = 9,
    Words
};

std::string_view wordOf(std::string_view& line)
{
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    const std::string_view word = line.substr(0, line.find(' '));
    line.remove_prefix(word.size());
    return word;
}

template <class Number>
bool readNumber(std::string_view text, int base, Number& number)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// Parses "0100007F:15B3": each four bytes of the address as a number of this machine, then the port.
bool isSame(std::string_view end, const sockaddr_in& address)
{
    constexpr int hexadecimal = 16;
    constexpr std::size_t digits = 8;
    const std::size_t colon = end.find(':');
    if (colon != digits && colon != 4 * digits)
        return false;
    SocketAddress::Words words{};
    for (std::size_t i = 0; i != colon / digits; ++i)
        if (!readNumber(end.substr(i * digits, digits), hexadecimal, words[i]))
            return false;
    uint16_t port = 0;
    return readNumber(end.substr(colon + 1), hexadecimal, port) && htons(port) == address.sin_port &&
           SocketAddress::isSame(words, colon != digits, address.sin_addr);
}

// The lines of a file, one after the other. Lines that are too long are skipped.
class Lines
{
public:
    explicit Lines(const std::string& path) : mFile(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}

    bool isOpen() const { return mFile.isOpen(); }

    bool next(std::string_view& line)
    {
        for (;;)
        {
            const char* const begin = mBuffer.data() + mBegin;
            const char* const end = mBuffer.data() + mEnd;
            const char* const newline = std::find(begin, end, '\n');
            if (newline != end)
            {
                line = std::string_view(begin, static_cast<std::size_t>(newline - begin));
                mBegin += line.size() + 1;
                if (line.size() <= longestLine && !mSkips)
                    return true;
                mSkips = false;
            }
            else if (!readMore())
                return false;
        }
    }

private:
    bool readMore()
    {
        if (mEnd - mBegin > longestLine)
        {
            mSkips = true;
            mBegin = mEnd;
        }
        std::copy(mBuffer.data() + mBegin, mBuffer.data() + mEnd, mBuffer.data());
        mEnd -= mBegin;
        mBegin = 0;
        ssize_t count = -1;
        do
            count = ::read(mFile.number(), mBuffer.data() + mEnd, mBuffer.size() - mEnd);
        while (count < 0 && errno == EINTR);
        if (count <= 0 || mRead > mostBytes)
            return false;
        mEnd += static_cast<std::size_t>(count);
        mRead += static_cast<std::size_t>(count);
        return true;
    }

    Descriptor mFile;
    std::array<char, 16 * longestLine> mBuffer{};
    std::size_t mBegin = 0;
    std::size_t mEnd = 0;
    std::size_t mRead = 0;
    bool mSkips = false; ///< in the middle of a line that is too long
};

} // namespace

ConnectionTable::ConnectionTable(const std::string& folder) : mTables{folder + "/tcp", folder + "/tcp6"} {}

Owner ConnectionTable::ask(const SocketPair& pair) const
{
    bool isThere = false;
    for (const std::string& table : mTables)
    {
        Lines lines(table);
        isThere = isThere || lines.isOpen();
        std::string_view line;
        while (lines.isOpen() && lines.next(line))
        {
            const Owner owner = read(line, pair);
            if (owner.knowledge() != Owner::Knowledge::NotAsked)
                return owner;
        }
    }
    return Owner::unknown(isThere ? Owner::Knowledge::NoConnection : Owner::Knowledge::NoMeans);
}

Owner ConnectionTable::read(std::string_view line, const SocketPair& pair)
{
    std::array<std::string_view, Words> words;
    for (std::string_view& word : words)
        word = wordOf(line);
    if (!isSame(words[Local], pair.peer) || !isSame(words[Remote], pair.own))
        return {};
    constexpr int decimal = 10;
    uid_t uid = 0;
    uint64_t inode = 0;
    if (!readNumber(words[Uid], decimal, uid) || !readNumber(words[Inode], decimal, inode))
        return {};
    // Sockets that are ending or without a process are reported with user 0, which would look like root.
    if (words[State] != established)
        return Owner::unknown(Owner::Knowledge::NotEstablished);
    if (inode == 0)
        return Owner::unknown(Owner::Knowledge::NoProcess);
    return Owner::known(uid, inode, std::nullopt);
}
