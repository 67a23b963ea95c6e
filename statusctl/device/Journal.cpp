#include "statusctl/device/Journal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/Logging.h"
#include "statusctl/text/Text.h"

Journal& Journal::get()
{
    static Journal& journal = *new Journal; // never destroyed
    return journal;
}

Journal::Journal() : mIsShown(std::getenv("OV_LOG") != nullptr)
{
    ov_log_set_sink(&Journal::take, this);
}

std::string Journal::takeFailure()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return std::exchange(mFailure, {});
}

void Journal::take(const ov_log_record* record, void* context)
{
    static_cast<Journal*>(context)->take(*record);
}

void Journal::take(const ov_log_record& record)
{
    constexpr int failures = 0;
    if (mIsShown)
        std::fprintf(stderr, "%d %s:%d %s\n", record.level, record.file, record.line,
                     Text::escaped(record.text).c_str());
    // A bad notification is not a failure of the request that is under way.
    if (record.level > failures || std::strstr(record.function, "handleNotifyMessage") != nullptr)
        return;
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mFailure.empty())
        mFailure = record.text;
}
