#ifndef STATUSCTL_DEVICE_JOURNAL_H
#define STATUSCTL_DEVICE_JOURNAL_H

#include <mutex>
#include <string>

/// Keeps the library's log off standard error and records its errors: the library reports failures only in
/// its log. With OV_LOG in the environment, all lines are printed.
///
/// The only instance lives until the process ends, because the library's threads may log until then.
class Journal
{
public:
    static Journal& get();

    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    /// The first failure since the last call; empty if there is none.
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
