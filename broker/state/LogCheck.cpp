#include "broker/state/LogCheck.h"

#include <array>
#include <cstdint>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "daemon/Descriptor.h"

namespace
{

// The layout is SQLite's, see "The Write-Ahead Log (WAL) Format" in its file format. The log is a header and
// frames. Each frame is a header of its own and a page. Numbers are big endian, but checksums may use either
// order.
constexpr std::size_t headerSize = 32;
constexpr std::size_t frameHeaderSize = 24;
constexpr std::size_t saltOffset = 8; // in a frame's header
constexpr std::size_t leastPage = 512;
constexpr std::size_t mostPage = 65536;
constexpr uint32_t magic = 0x377F0682; // its last bit is the byte order of the checksums

using Bytes = std::vector<unsigned char>;

uint32_t numberAt(const Bytes& bytes, std::size_t offset)
{
    uint32_t number = 0;
    for (std::size_t byte = 0; byte < sizeof(number); ++byte)
        number = number << 8U | bytes[offset + byte];
    return number;
}

struct Sums
{
    uint32_t first = 0;
    uint32_t second = 0;

    bool operator==(const Sums& other) const { return first == other.first && second == other.second; }
};

Sums sumsAt(const Bytes& bytes, std::size_t offset)
{
    return {numberAt(bytes, offset), numberAt(bytes, offset + sizeof(uint32_t))};
}

// A log, checked from its first frame to its last.
class Log
{
public:
    explicit Log(int descriptor) : mDescriptor(descriptor)
    {
        struct stat status
        {
        };
        if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
            mSize = static_cast<std::size_t>(status.st_size);
    }

    LogCheck check();

private:
    struct Frame
    {
        Bytes bytes;
        bool isWhole = false;
    };

    bool readHeader();
    std::size_t endOf(std::size_t number) const
    {
        return headerSize + (number + 1) * (frameHeaderSize + mPageSize);
    }
    std::optional<Frame> read(std::size_t number, bool withPage) const;
    bool fits(const Bytes& frame, Sums before) const;
    Sums sum(Sums sums, const Bytes& bytes, std::size_t from, std::size_t to) const;
    bool isOurs(const Bytes& frame) const;
    bool isEarlier(const Bytes& frame) const;
    std::size_t skipGood();
    void checkEnd(std::size_t first);

    static bool isCommit(const Bytes& frame) { return numberAt(frame, sizeof(uint32_t)) != 0; }
    static bool isUnwritten(const Bytes& frame) { return sumsAt(frame, saltOffset) == Sums(); }
    static Sums storedSums(const Bytes& frame) { return sumsAt(frame, saltOffset + 2 * sizeof(uint32_t)); }

    int mDescriptor;
    std::size_t mSize = 0;
    std::size_t mPageSize = 0;
    bool mIsBigEndian = false;
    uint32_t mRestarts = 0; // how often the log has restarted over old frames
    Sums mSalts;
    Sums mSums; // of the last good frame
    LogCheck mResult;
};

LogCheck Log::check()
{
    if (mSize < headerSize)
        return {};
    if (readHeader())
        checkEnd(skipGood());
    else
        mResult.damage = "the header of its log";
    return mResult;
}

bool Log::readHeader()
{
    Bytes header(headerSize);
    if (pread(mDescriptor, header.data(), header.size(), 0) != static_cast<ssize_t>(headerSize))
        return false;
    constexpr std::size_t pageSize = 8;
    constexpr std::size_t restarts = 12;
    constexpr std::size_t salts = 16;
    constexpr std::size_t sums = 24;
    mIsBigEndian = (numberAt(header, 0) & 1U) != 0;
    mPageSize = numberAt(header, pageSize);
    mRestarts = numberAt(header, restarts);
    mSalts = sumsAt(header, salts);
    mSums = sum({}, header, 0, sums);
    const bool hasPages =
        mPageSize >= leastPage && mPageSize <= mostPage && (mPageSize & (mPageSize - 1)) == 0;
    return (numberAt(header, 0) & ~1U) == magic && hasPages && mSums == sumsAt(header, sums);
}

// Returns nothing if even the frame's header is incomplete. Reads the page only of a complete frame.
std::optional<Log::Frame> Log::read(std::size_t number, bool withPage) const
{
    const std::size_t size = frameHeaderSize + mPageSize;
    Frame frame;
    frame.isWhole = endOf(number) <= mSize;
    frame.bytes.resize(withPage && frame.isWhole ? size : frameHeaderSize);
    const auto offset = static_cast<off_t>(endOf(number) - size);
    const ssize_t count = pread(mDescriptor, frame.bytes.data(), frame.bytes.size(), offset);
    if (count != static_cast<ssize_t>(frame.bytes.size()))
        return std::nullopt;
    return frame;
}

// SQLite's checksum of some bytes, continued from `sums`.
Sums Log::sum(Sums sums, const Bytes& bytes, std::size_t from, std::size_t to) const
{
    const auto word = [&](std::size_t offset)
    {
        const uint32_t number = numberAt(bytes, offset);
        return mIsBigEndian ? number : __builtin_bswap32(number);
    };
    for (std::size_t at = from; at < to; at += 2 * sizeof(uint32_t))
    {
        sums.first += word(at) + sums.second;
        sums.second += word(at + sizeof(uint32_t)) + sums.first;
    }
    return sums;
}

bool Log::fits(const Bytes& frame, Sums before) const
{
    const Sums ofHeader = sum(before, frame, 0, saltOffset);
    return sum(ofHeader, frame, frameHeaderSize, frame.size()) == storedSums(frame);
}

bool Log::isOurs(const Bytes& frame) const
{
    return sumsAt(frame, saltOffset) == mSalts;
}

// Whether the frame is older than the log's last restart: the first salt counts the restarts.
bool Log::isEarlier(const Bytes& frame) const
{
    const uint32_t age = mSalts.first - numberAt(frame, saltOffset);
    return age >= 1 && age <= mRestarts;
}

// Returns the number of the first frame that does not match.
std::size_t Log::skipGood()
{
    std::size_t number = 0;
    mResult.isBlank = true;
    for (;; ++number)
    {
        const std::optional<Frame> frame = read(number, true);
        if (!frame || !frame->isWhole || !isOurs(frame->bytes) || !fits(frame->bytes, mSums))
            return number;
        mSums = storedSums(frame->bytes);
        mResult.isBlank = mResult.isBlank && !isCommit(frame->bytes);
    }
}

// Behind the good frames, three kinds are harmless: older frames, the front of an unfinished transaction, and
// unwritten storage. Any other frame was valid once.
void Log::checkEnd(std::size_t first)
{
    std::optional<Sums> before; // of the previous frame
    bool isAllOurs = true;
    for (std::size_t number = first;; ++number)
    {
        const std::optional<Frame> frame = read(number, false);
        if (!frame)
            return;
        const bool ours = isOurs(frame->bytes);
        const bool isFinished = ours && frame->isWhole && isCommit(frame->bytes);
        const bool isForeign = !ours && !isEarlier(frame->bytes) && !isUnwritten(frame->bytes);
        if (isForeign || (isFinished && before && fits(read(number, true)->bytes, *before)))
        {
            mResult.damage = "its log, from page " + std::to_string(first + 1) + " on";
            return;
        }
        before = storedSums(frame->bytes);
        isAllOurs = isAllOurs && ours;
        mResult.hasBadEnd = isAllOurs && isFinished && endOf(number) == mSize;
    }
}

} // namespace

LogCheck checkLog(const std::string& path)
{
    const Descriptor log(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    return log.isOpen() ? Log(log.number()).check() : LogCheck();
}
