#include "KZF_Utilities/Linux/SysUtils.h"
#include "KZF_Utilities/Linux/KzfTime.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using KZF::CSysUtils;

TEST(SysUtilsTest, CaseConversionsAndNumbersTouchOnlyWhatTheyShould)
{
    KZF::tstring text = "Content-TYPE \xC3\x89@[`{Z";
    CSysUtils::ToLower(text);
    EXPECT_EQ("content-type \xC3\x89@[`{z", text);
    const std::string bytes("a\xC3\xA9\x7F\x80\xFFz\0b", 9);
    EXPECT_EQ(bytes, CSysUtils::UTF8ToTString(bytes));
    EXPECT_EQ(bytes, CSysUtils::TStringToUTF8(bytes));
    EXPECT_EQ(std::string("a??\x7F??z\0b", 9), CSysUtils::TStringToAscii(bytes));
    for (int64_t n : {int64_t(0), int64_t(20000), INT64_MIN, INT64_MAX})
        EXPECT_EQ(std::to_string(n), CSysUtils::Int64ToString(n));
}

TEST(SysUtilsTest, MakeFullPathJoinsWithExactlyOneSlash)
{
    const char *const cases[][3] = {
        {"/srv/www", "index.html", "/srv/www/index.html"},
        {"/srv/www/", "index.html", "/srv/www/index.html"},
        {"/srv/www//", "a/b", "/srv/www/a/b"},
        {"/srv/www", "", "/srv/www/"},
        {"/", "etc", "/etc"},
        {"", "x", "./x"},
        {"rel", "x", "rel/x"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c[2], CSysUtils::MakeFullPath(c[0], c[1])) << c[0] << " + " << c[1];
}

TEST(SysUtilsTest, FileExistsOnlyForRegularFiles)
{
    char directory[] = "/tmp/kzf-sysutils-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(directory));
    const std::string dir(directory), file = dir + "/file", fifo = dir + "/fifo", link = dir + "/link";
    close(open(file.c_str(), O_CREAT | O_WRONLY, 0600));
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
    EXPECT_TRUE(CSysUtils::FileExists(file));
    EXPECT_TRUE(CSysUtils::FileExists(link));
    for (const std::string &other : {fifo, dir, std::string("/dev/null"), dir + "/missing"})
        EXPECT_FALSE(CSysUtils::FileExists(other)) << other;
    EXPECT_TRUE(CSysUtils::DirectoryExists(dir));
    EXPECT_TRUE(CSysUtils::DirectoryExists(dir + "/"));
    EXPECT_FALSE(CSysUtils::DirectoryExists(file));
    EXPECT_FALSE(CSysUtils::DirectoryExists(dir + "/missing"));
    EXPECT_EQ(0, std::system(("rm -r " + dir).c_str()));
}

TEST(SysUtilsTest, AtoiReadsLikeAtoiAndSaturates)
{
    const std::pair<const char *, long> cases[] = {
        {"5", 5},
        {"  \t42", 42},
        {"+7", 7},
        {"-12", -12},
        {"12abc", 12},
        {"x", 0},
        {"", 0},
        {"- 3", 0},
        {"0007", 7},
        {"9223372036854775807", LONG_MAX},
        {"9223372036854775808", LONG_MAX},
        {"99999999999999999999999", LONG_MAX},
        {"-9223372036854775808", LONG_MIN},
        {"-9223372036854775809", LONG_MIN},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.second, _atoi(c.first)) << '"' << c.first << '"';
    EXPECT_EQ(0, _atoi(nullptr));
}

time_t fixedClock()
{
    return 1763312401; // 2025-11-16T17:00:01Z
}

TEST(KzfTimeTest, ClockCanBeReplacedAndLocalTimeRoundTripsAndNormalises)
{
    KZF::SetTimeSource(&fixedClock);
    time_t stored = 0;
    EXPECT_EQ(1763312401, KZF::time(&stored));
    EXPECT_EQ(1763312401, stored);
    KZF::SetTimeSource(nullptr);
    const time_t now = KZF::time();
    EXPECT_GT(now, 1763312401);
    struct tm record = KZF::localtime(now);
    EXPECT_EQ(now, KZF::mktime(record));
    record.tm_hour = 25; // normalised into the next day
    record.tm_min = record.tm_sec = 0;
    const int day = record.tm_mday;
    KZF::mktime(record);
    EXPECT_EQ(1, record.tm_hour);
    EXPECT_NE(day, record.tm_mday);
}

} // namespace
