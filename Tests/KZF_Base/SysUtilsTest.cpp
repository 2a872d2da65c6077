#include "KZF_Utilities/Linux/SysUtils.h"
#include "KZF_Utilities/Linux/KzfTime.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using KZF::CSysUtils;

TEST(SysUtilsTest, ToLowerChangesOnlyAsciiCapitals)
{
    KZF::tstring text = "Content-TYPE \xC3\x89@[`{Z";
    CSysUtils::ToLower(text);
    EXPECT_EQ("content-type \xC3\x89@[`{z", text);
}

TEST(SysUtilsTest, ConversionsKeepOrReplaceBytes)
{
    const std::string bytes("a\xC3\xA9\x7F\x80\xFFz\0b", 9);
    EXPECT_EQ(bytes, CSysUtils::UTF8ToTString(bytes));
    EXPECT_EQ(bytes, CSysUtils::TStringToUTF8(bytes));
    EXPECT_EQ(std::string("a??\x7F??z\0b", 9), CSysUtils::TStringToAscii(bytes));
}

TEST(SysUtilsTest, Int64ToStringCoversTheWholeRange)
{
    EXPECT_EQ("0", CSysUtils::Int64ToString(0));
    EXPECT_EQ("20000", CSysUtils::Int64ToString(20000));
    EXPECT_EQ("-9223372036854775808", CSysUtils::Int64ToString(INT64_MIN));
    EXPECT_EQ("9223372036854775807", CSysUtils::Int64ToString(INT64_MAX));
}

TEST(SysUtilsTest, MakeFullPathJoinsWithExactlyOneSlash)
{
    struct SCase {
        const char *directory;
        const char *name;
        const char *expected;
    };
    const SCase cases[] = {
        {"/srv/www", "index.html", "/srv/www/index.html"},
        {"/srv/www/", "index.html", "/srv/www/index.html"},
        {"/srv/www//", "a/b", "/srv/www/a/b"},
        {"/srv/www", "", "/srv/www/"},
        {"/", "etc", "/etc"},
        {"", "x", "./x"},
        {"rel", "x", "rel/x"},
    };
    for (const SCase &c : cases)
        EXPECT_EQ(c.expected, CSysUtils::MakeFullPath(c.directory, c.name)) << c.directory << " + " << c.name;
}

TEST(SysUtilsTest, FileExistsOnlyForRegularFiles)
{
    char directory[] = "/tmp/kzf-sysutils-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(directory));
    const std::string dir(directory);
    const std::string file = dir + "/file";
    const std::string fifo = dir + "/fifo";
    const std::string link = dir + "/link";
    const int fd = open(file.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));

    EXPECT_TRUE(CSysUtils::FileExists(file));
    EXPECT_TRUE(CSysUtils::FileExists(link));
    EXPECT_FALSE(CSysUtils::FileExists(fifo));
    EXPECT_FALSE(CSysUtils::FileExists(dir));
    EXPECT_FALSE(CSysUtils::FileExists("/dev/null"));
    EXPECT_FALSE(CSysUtils::FileExists(dir + "/missing"));

    EXPECT_TRUE(CSysUtils::DirectoryExists(dir));
    EXPECT_TRUE(CSysUtils::DirectoryExists(dir + "/"));
    EXPECT_FALSE(CSysUtils::DirectoryExists(file));
    EXPECT_FALSE(CSysUtils::DirectoryExists(dir + "/missing"));

    unlink(link.c_str());
    unlink(fifo.c_str());
    unlink(file.c_str());
    rmdir(directory);
}

TEST(SysUtilsTest, AtoiReadsLikeAtoiAndSaturates)
{
    struct SCase {
        const char *text;
        long expected;
    };
    const SCase cases[] = {
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
    for (const SCase &c : cases)
        EXPECT_EQ(c.expected, _atoi(c.text)) << '"' << c.text << '"';
    EXPECT_EQ(0, _atoi(nullptr));
}

time_t fixedClock()
{
    return 1763312401; // 2025-11-16T17:00:01Z
}

TEST(KzfTimeTest, ClockCanBeReplacedAndRestored)
{
    KZF::SetTimeSource(&fixedClock);
    time_t stored = 0;
    EXPECT_EQ(1763312401, KZF::time(&stored));
    EXPECT_EQ(1763312401, stored);
    KZF::SetTimeSource(nullptr);
    EXPECT_GT(KZF::time(), 1763312401);
}

TEST(KzfTimeTest, LocalTimeAndMktimeRoundTripAndNormalise)
{
    const time_t now = KZF::time();
    struct tm record = KZF::localtime(now);
    EXPECT_EQ(now, KZF::mktime(record));

    record.tm_hour = 25; // normalised into the next day
    record.tm_min = 0;
    record.tm_sec = 0;
    const int day = record.tm_mday;
    KZF::mktime(record);
    EXPECT_EQ(1, record.tm_hour);
    EXPECT_NE(day, record.tm_mday);
}

} // namespace
