#include "KZF_Utilities/Linux/KzfTime.h"

#include <atomic>

namespace KZF
{

namespace
{
std::atomic<TimeSource> s_timeSource(nullptr);
}

time_t time(time_t *result)
{
    const TimeSource source = s_timeSource.load(std::memory_order_acquire);
    const time_t now = source != nullptr ? source() : ::time(nullptr);
    if (result != nullptr)
        *result = now;
    return now;
}

struct tm localtime(time_t t)
{
    struct tm record = {};
    ::localtime_r(&t, &record);
    return record;
}

time_t mktime(struct tm &record)
{
    return ::mktime(&record);
}

void SetTimeSource(TimeSource source)
{
    s_timeSource.store(source, std::memory_order_release);
}

} // namespace KZF
