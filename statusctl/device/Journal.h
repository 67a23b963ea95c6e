#ifndef STATUSCTL_DEVICE_JOURNAL_H
#define STATUSCTL_DEVICE_JOURNAL_H

#include <mutex>
#include <string>

/// Keeps the library's log off standard error, and remembers failures: the library reports them in no other
/// way. With OV_LOG in the environment all lines are shown.
///
/// There is one, which lives until the process ends: the library's threads may log until then.
class Journal
{
public:
    static Journal& get();

    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    /// The first failure since the last call; empty if there was none.
    std::string takeFailure();

private:
    Journal();
    static void take(const struct ov_log_record* record, void* context);
    void take(const struct ov_log_record& record);

    const bool mIsShown;
    std::mutex mMutex;
    std::string mFailure;
};

#endif
