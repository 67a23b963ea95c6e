#include "broker/StateFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fnmatch.h>
#include <fstream>
#include <unistd.h>
#include <utility>

#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

namespace
{

template <typename Map, typename Keeps>
void keepOnly(Map& map, const Keeps& keeps)
{
    for (auto entry = map.begin(); entry != map.end();)
        entry = keeps(entry->first) ? std::next(entry) : map.erase(entry);
}

// Adds what has changed; what it replaces is gone.
template <typename Map, typename Keeps>
void merge(const Map& changes, Map& into, const Keeps& keeps)
{
    for (const auto& [name, value] : changes)
        if (keeps(name))
            into.insert_or_assign(name, value);
}

// Running timers go on within the boot in which they were started, and are stopped after it at what they had
// when the file was written last.
void bringInto(const BootMoment& now, const Database::Contents& contents, SavedState::Timer& timer)
{
    if (timer.spanStart == 0)
        return;
    const bool sameBoot = contents.bootId == now.bootId;
    if (sameBoot && timer.spanStart <= now.microseconds)
        return;
    if (!sameBoot && contents.microseconds > timer.spanStart)
        timer.accumulated += contents.microseconds - timer.spanStart;
    timer.spanStart = 0;
}

// A name that is not taken: path.bad, path.bad.1 and so on.
std::string freeName(const std::string& path)
{
    std::string name = path + ".bad";
    for (int number = 1; access(name.c_str(), F_OK) == 0; ++number)
        name = path + ".bad." + std::to_string(number);
    return name;
}

} // namespace

BootMoment BootMoment::now()
{
    BootMoment moment;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> moment.bootId;
    const auto time = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch());
    moment.microseconds = static_cast<uint64_t>(time.count());
    return moment;
}

StateFile::StateFile(std::string path, StateSync sync, std::vector<std::string> keys)
    : mPath(std::move(path)), mSync(sync), mKeys(std::move(keys))
{
}

StateFile::~StateFile() = default;

bool StateFile::isKept(const std::string& name) const
{
    return mKeys.empty() ||
           std::any_of(mKeys.begin(), mKeys.end(),
                       [&](const std::string& glob) { return fnmatch(glob.c_str(), name.c_str(), 0) == 0; });
}

SavedState StateFile::load(const BootMoment& now)
{
    if (!open())
        return {};
    Database::Contents contents;
    try
    {
        contents = mDatabase->read();
    }
    catch (const DatabaseError& error)
    {
        mDatabase.reset();
        if (error.isUnreadable())
            moveAside(error.what());
        else
            failed(error.what());
        open();
        return {};
    }
    const auto keeps = [this](const std::string& name) { return isKept(name); };
    SavedState state = std::move(contents.state);
    keepOnly(state.values, keeps);
    keepOnly(state.timers, keeps);
    keepOnly(state.counters, keeps);
    for (auto& [name, timer] : state.timers)
        bringInto(now, contents, timer);
    return state;
}

void StateFile::commit(const SavedState& changes, const BootMoment& now)
{
    const auto keeps = [this](const std::string& name) { return isKept(name); };
    merge(changes.values, mPending.values, keeps);
    merge(changes.timers, mPending.timers, keeps);
    merge(changes.counters, mPending.counters, keeps);
    if (mPending.empty() && !changes.empty())
        return;
    // One that fails is not tried again with every change.
    if ((mFails || !mDatabase) && Clock::now() < mNextAttempt)
        return;
    if (mDatabase || open())
        write(now);
}

void StateFile::write(const BootMoment& now)
{
    try
    {
        mDatabase->write(mPending, now.bootId, now.microseconds);
    }
    catch (const DatabaseError& error)
    {
        failed(error.what());
        return;
    }
    mPending = SavedState();
    ++mCommits;
    succeeded();
}

// ------------------------------------------------------------------------------------------------ the file

// False if it cannot be had now.
bool StateFile::open()
{
    constexpr int attempts = 2; // the second one after the unreadable file has been moved aside
    for (int attempt = 0; attempt < attempts; ++attempt)
    {
        try
        {
            mDatabase = std::make_unique<Database>(mPath, mSync);
            return true;
        }
        catch (const DatabaseError& error)
        {
            if (!error.isUnreadable() || attempt + 1 == attempts)
            {
                failed(error.what());
                return false;
            }
            moveAside(error.what());
        }
    }
    return false;
}

void StateFile::moveAside(const std::string& reason)
{
    const std::string aside = freeName(mPath);
    if (rename(mPath.c_str(), aside.c_str()) != 0)
        return failed("cannot move it aside: " + std::string(strerror(errno)));
    // What was written last is in the log beside it.
    if (rename((mPath + "-wal").c_str(), (aside + "-wal").c_str()) != 0 && errno != ENOENT)
        return failed("cannot move its log aside: " + std::string(strerror(errno)));
    OV_LOG(0, "State file [%s] cannot be read (%s), moved to [%s]", mPath.c_str(), reason.c_str(),
           aside.c_str());
}

void StateFile::succeeded()
{
    if (mFails)
        OV_LOG(2, "State file [%s] is written again", mPath.c_str());
    mFails = false;
}

void StateFile::failed(const std::string& reason)
{
    constexpr std::chrono::seconds pause{1};
    mNextAttempt = Clock::now() + pause;
    ++mErrors;
    if (!mFails)
        OV_LOG(0, "State file [%s]: %s; what changes is lost when the broker ends", mPath.c_str(),
               reason.c_str());
    mFails = true;
}
