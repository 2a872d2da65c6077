#ifndef NVQ_HTTP_HTTPDATE_H
#define NVQ_HTTP_HTTPDATE_H

#include "KZF_Base/Linux/KzfTypes.h"

#include <cstddef>
#include <ctime>

namespace NVQ
{

// HTTP dates (RFC 9110, section 5.6.7), always in GMT, independent of the
// locale and the time zone of the device.
class CHTTPDate
{
  public:
    // "Sun, 06 Nov 1994 08:49:37 GMT" and a terminating zero.
    static constexpr size_t c_length = 29;

    // Writes the preferred form (IMF-fixdate) of `time`; false for a time
    // outside the years 0 to 9999.
    static bool Format(time_t time, char (&out)[c_length + 1]);

    // Reads any of the three forms a recipient must accept: IMF-fixdate,
    // the obsolete RFC 850 form ("Sunday, 06-Nov-94 08:49:37 GMT") and
    // asctime's ("Sun Nov  6 08:49:37 1994"). False, with `time` untouched,
    // for anything else.
    static bool Parse(const KZF::tstring &text, time_t &time);
};

} // namespace NVQ

#endif
