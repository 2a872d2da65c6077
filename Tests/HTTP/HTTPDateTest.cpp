#include "HTTP/HTTPDate.h"

#include <gtest/gtest.h>

#include <cstring>

namespace
{

TEST(HTTPDateTest, ReadsTheThreeFormsRefusesTheRestWritesTheFirst)
{
    const time_t c_1994 = 784111777; // 1994-11-06 08:49:37 GMT
    const struct {
        const char *text;
        time_t expected; // -1: refused
    } cases[] = {
        {"Sun, 06 Nov 1994 08:49:37 GMT", c_1994},
        {"Sunday, 06-Nov-94 08:49:37 GMT", c_1994},
        {"Sun Nov  6 08:49:37 1994", c_1994},
        {"Tue, 29 Feb 2000 12:00:00 GMT", 951825600},
        {"Wed, 31 Dec 1969 23:59:58 GMT", -2},
        {"Tue, 19 Jan 2038 03:14:08 GMT", time_t(2147483648LL)},   // past a 32-bit time_t
        {"Sat, 01 Jan 0000 00:00:00 GMT", time_t(-62167219200LL)}, // the first and last years written
        {"Fri, 31 Dec 9999 23:59:59 GMT", time_t(253402300799LL)},
        {"Sun, 06 Nov 1994 08:49:37 UTC", -1},
        {"Sun, 6 Nov 1994 08:49:37 GMT", -1},
        {"Sun, 06 Nov 1994 08:49:37 GMT ", -1},
        {"Sun, 06 Nov 1994 24:00:00 GMT", -1},
        {"Sun, 06 Nov 1994 08:60:00 GMT", -1},
        {"Sun, 06 Nov 1994 08:49:3/ GMT", -1}, // bytes beside the digits
        {"Sun, 06 Nov 1994 08:49:3: GMT", -1},
        {"Mon, 29 Feb 1900 00:00:00 GMT", -1},
        {"Sun Nov  6 08:49:37 94", -1},
        {"Sun,", -1},
    };
    for (const auto &c : cases) {
        time_t parsed = -1;
        EXPECT_EQ(c.expected != -1, NVQ::CHTTPDate::Parse(c.text, parsed)) << c.text;
        EXPECT_EQ(c.expected, parsed) << c.text;
        char text[NVQ::CHTTPDate::c_length + 1];
        if (c.expected != -1 && std::strchr(c.text, ',') == c.text + 3) {
            ASSERT_TRUE(NVQ::CHTTPDate::Format(c.expected, text));
            EXPECT_STREQ(c.text, text);
        }
    }
    char text[NVQ::CHTTPDate::c_length + 1];
    EXPECT_FALSE(NVQ::CHTTPDate::Format(time_t(-62167219201LL), text));
    EXPECT_FALSE(NVQ::CHTTPDate::Format(time_t(253402300800LL), text));
}

} // namespace
