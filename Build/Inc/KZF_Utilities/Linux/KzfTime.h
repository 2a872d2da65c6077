#ifndef KZF_UTILITIES_LINUX_KZFTIME_H
#define KZF_UTILITIES_LINUX_KZFTIME_H

#include <ctime>

namespace KZF
{

// Current calendar time in whole seconds, from the clock source; stored into
// *result as well when result is given.
time_t time(time_t *result = nullptr);

// Local calendar time of t; thread-safe (no shared static record).
struct tm localtime(time_t t);

// Local calendar record to time, normalising out-of-range fields in place.
time_t mktime(struct tm &record);

// Replaces the clock behind KZF::time, so tests can set the time instead of
// sleeping; null restores the system clock.
typedef time_t (*TimeSource)();
void SetTimeSource(TimeSource source);

} // namespace KZF

#endif
