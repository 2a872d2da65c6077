#include "HTTP/HTTPDate.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

TEST(HTTPDateTest, ReadsTheThreeFormsAndRefusesTheRest)
{
    // 1994-11-06 08:49:37 GMT.
    const time_t c_1994 = 784111777;
    struct SCase {
        const char *text;
        bool valid;
        time_t expected;
    };
    const SCase cases[] = {
        {"Sun, 06 Nov 1994 08:49:37 GMT", true, c_1994},
        {"Sunday, 06-Nov-94 08:49:37 GMT", true, c_1994},
        {"Sun Nov  6 08:49:37 1994", true, c_1994},
        {"Thu, 01 Jan 1970 00:00:00 GMT", true, 0},
        {"Tue, 29 Feb 2000 12:00:00 GMT", true, 951825600},
        {"Tue, 19 Jan 2038 03:14:08 GMT", true, time_t(2147483648LL)}, // past a 32-bit time_t
        {"Sun, 06 Nov 1994 08:49:37 UTC", false, 0},
        {"Sun, 6 Nov 1994 08:49:37 GMT", false, 0},
        {"Sun, 06 Nov 1994 08:49:37 GMT ", false, 0},
        {"Sun, 06 Nov 1994 24:00:00 GMT", false, 0},
        {"Mon, 29 Feb 1900 00:00:00 GMT", false, 0},
        {"Sun, 31 Apr 1994 08:49:37 GMT", false, 0},
        {"Sun, 06 Xyz 1994 08:49:37 GMT", false, 0},
        {"Sun Nov  6 08:49:37 94", false, 0},
        {"", false, 0},
        {"Sun,", false, 0},
    };
    for (const SCase &c : cases) {
        time_t parsed = 12345;
        EXPECT_EQ(c.valid, NVQ::CHTTPDate::Parse(c.text, parsed)) << c.text;
        EXPECT_EQ(c.valid ? c.expected : 12345, parsed) << c.text;
    }
}

TEST(HTTPDateTest, FormatsWhatItReads)
{
    char text[NVQ::CHTTPDate::c_length + 1];
    for (const time_t t : {time_t(0), time_t(784111777), time_t(951825600), time_t(1700000000)}) {
        ASSERT_TRUE(NVQ::CHTTPDate::Format(t, text));
        time_t back = 0;
        EXPECT_TRUE(NVQ::CHTTPDate::Parse(text, back)) << text;
        EXPECT_EQ(t, back) << text;
    }
    ASSERT_TRUE(NVQ::CHTTPDate::Format(784111777, text));
    EXPECT_EQ(std::string("Sun, 06 Nov 1994 08:49:37 GMT"), text);
    EXPECT_TRUE(NVQ::CHTTPDate::Format(-1, text));
    EXPECT_EQ(std::string("Wed, 31 Dec 1969 23:59:59 GMT"), text);
}

} // namespace
