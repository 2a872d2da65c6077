#include "KZF_Utilities/Linux/SysUtils.h"
#include "KZF_Utilities/Linux/KzfTime.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace
{

using KZF::CSysUtils;

TEST(SysUtilsTest, CaseAndAsciiConversionsTouchOnlyWhatTheyShould)
{
    KZF::tstring text = "Content-TYPE \xC3\x89@[`{Z";
    CSysUtils::ToLower(text);
    EXPECT_EQ("content-type \xC3\x89@[`{z", text);
    const std::string bytes("a\xC3\xA9\x7F\x80\xFFz\0b", 9);
    EXPECT_EQ(std::string("a??\x7F??z\0b", 9), CSysUtils::TStringToAscii(bytes));
}

TEST(SysUtilsTest, MakeFullPathJoinsWithExactlyOneSlash)
{
    typedef std::array<const char *, 3> SCase; // directory, name, path
    for (const SCase &c :
         {SCase{"/srv/www", "index.html", "/srv/www/index.html"}, SCase{"/srv/www/", "x", "/srv/www/x"},
          SCase{"/srv/www//", "a/b", "/srv/www/a/b"}, SCase{"/srv/www", "", "/srv/www/"},
          SCase{"/", "etc", "/etc"}, SCase{"", "x", "./x"}, SCase{"rel", "x", "rel/x"}})
        EXPECT_EQ(c[2], CSysUtils::MakeFullPath(c[0], c[1])) << c[0] << " + " << c[1];
}

TEST(SysUtilsTest, FileExistsOnlyForRegularFilesAndDirectoryExistsOnlyForDirectories)
{
    char directory[] = "/tmp/kzf-sysutils-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(directory));
    const std::string dir(directory), file = dir + "/file", fifo = dir + "/fifo";
    close(open(file.c_str(), O_CREAT | O_WRONLY, 0600));
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    ASSERT_EQ(0, symlink(file.c_str(), (dir + "/link").c_str()));
    typedef std::tuple<std::string, bool, bool> SCase; // path, file, directory
    for (const SCase &c : {SCase{file, true, false}, SCase{dir + "/link", true, false},
                           SCase{fifo, false, false}, SCase{dir, false, true}, SCase{dir + "/", false, true},
                           SCase{"/dev/null", false, false}, SCase{dir + "/missing", false, false}}) {
        EXPECT_EQ(std::get<1>(c), CSysUtils::FileExists(std::get<0>(c))) << std::get<0>(c);
        EXPECT_EQ(std::get<2>(c), CSysUtils::DirectoryExists(std::get<0>(c))) << std::get<0>(c);
    }
    EXPECT_EQ(0, std::system(("rm -r " + dir).c_str()));
}

TEST(SysUtilsTest, AtoiReadsLikeAtoiAndSaturates)
{
    typedef std::pair<const char *, long> SCase;
    for (const SCase &c : {SCase{"5", 5}, SCase{"  \t42", 42}, SCase{"+7", 7}, SCase{"-12", -12},
                           SCase{"12abc", 12}, SCase{"x", 0}, SCase{"", 0}, SCase{"- 3", 0}, SCase{"0007", 7},
                           SCase{nullptr, 0}, SCase{"9223372036854775807", LONG_MAX},
                           SCase{"9223372036854775808", LONG_MAX}, SCase{"99999999999999999999999", LONG_MAX},
                           SCase{"-9223372036854775808", LONG_MIN}, SCase{"-9223372036854775809", LONG_MIN}})
        EXPECT_EQ(c.second, _atoi(c.first)) << (c.first ? c.first : "null");
}

TEST(KzfTimeTest, ClockCanBeReplacedAndLocalTimeRoundTrips)
{
    KZF::SetTimeSource([] { return time_t(1763312401); });
    time_t stored = 0;
    EXPECT_EQ(1763312401, KZF::time(&stored));
    EXPECT_EQ(1763312401, stored);
    KZF::SetTimeSource(nullptr);
    const time_t now = KZF::time();
    EXPECT_GT(now, 1763312401);
    struct tm record = KZF::localtime(now);
    EXPECT_EQ(now, KZF::mktime(record));
}

} // namespace
