#include "HTTP/HTTPFileCache.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using NVQ::CHTTPFileCache;

const time_t c_now = 1000000;

// A status as seen at c_now: inode, size, modified and changed times as
// seconds before c_now, a regular file unless told otherwise.
struct stat fileStatus(ino_t inode, off_t size, time_t modifiedAgo = 10, time_t changedAgo = 10,
                       mode_t mode = S_IFREG | 0644)
{
    struct stat status = {};
    status.st_mode = mode, status.st_dev = 3, status.st_ino = inode, status.st_size = size;
    status.st_mtim.tv_sec = c_now - modifiedAgo, status.st_ctim.tv_sec = c_now - changedAgo;
    return status;
}

std::string found(CHTTPFileCache &cache, const std::string &path, const struct stat &status)
{
    const CHTTPFileCache::TContent content = cache.Find(path, status);
    return content ? *content : std::string("<none>");
}

void put(CHTTPFileCache &cache, const std::string &path, const struct stat &status, const std::string &data)
{
    cache.Put(path, status, reinterpret_cast<const unsigned char *>(data.data()), data.size(), c_now);
}

TEST(HTTPFileCacheTest, ContentsAreUsedOnlyWhileTheFileIsUnchanged)
{
    CHTTPFileCache cache;
    const struct stat kept = fileStatus(7, 5);
    put(cache, "/a", kept, "hello");
    EXPECT_EQ("hello", found(cache, "/a", kept));
    EXPECT_EQ("<none>", found(cache, "/b", kept)) << "another path";
    const auto changed = [&kept](void (*change)(struct stat &)) {
        struct stat status = kept;
        change(status);
        return status;
    };
    const struct {
        const char *change;
        struct stat status;
    } rows[] = {
        // clang-format off
        {"replaced by another inode", fileStatus(8, 5)}, {"other size", fileStatus(7, 6)},
        {"modified", fileStatus(7, 5, 9, 9)}, {"status changed (times set back)", fileStatus(7, 5, 10, 5)},
        {"modified within the same second", changed([](struct stat &s) { s.st_mtim.tv_nsec = 1; })},
        {"status changed within the same second", changed([](struct stat &s) { s.st_ctim.tv_nsec = 1; })},
        {"other device", changed([](struct stat &s) { s.st_dev = 4; })},
        {"now a directory", fileStatus(7, 5, 10, 10, S_IFDIR | 0755)},
        // clang-format on
    };
    for (const auto &row : rows)
        EXPECT_EQ("<none>", found(cache, "/a", row.status)) << row.change;
}

TEST(HTTPFileCacheTest, WhatIsNotKept)
{
    CHTTPFileCache cache;
    const struct {
        const char *why;
        struct stat status;
        std::string data;
    } rows[] = {
        // clang-format off
        {"modified too recently to tell a rewrite apart", fileStatus(1, 3, 1, 10), "abc"},
        {"status changed too recently", fileStatus(1, 3, 10, 1), "abc"},
        {"fewer bytes read than the size", fileStatus(1, 4), "abc"},
        {"larger than one piece", fileStatus(1, 8195), std::string(8195, 'x')},
        {"not a regular file", fileStatus(1, 0, 10, 10, S_IFIFO | 0644), ""},
        // clang-format on
    };
    for (const auto &row : rows) {
        put(cache, "/f", row.status, row.data);
        EXPECT_EQ("<none>", found(cache, "/f", row.status)) << row.why;
    }
    const struct stat largest = fileStatus(1, 8194, 2, 2);
    put(cache, "/f", largest, std::string(8194, 'y'));
    EXPECT_EQ(std::string(8194, 'y'), found(cache, "/f", largest)) << "one full piece, two seconds old";
}

TEST(HTTPFileCacheTest, NewContentsReplaceThePathsEntryAndTheOldestEntryMakesRoom)
{
    CHTTPFileCache cache;
    const struct stat first = fileStatus(1, 3), second = fileStatus(1, 3, 5, 5);
    put(cache, "/p", first, "old");
    const CHTTPFileCache::TContent held = cache.Find("/p", first);
    put(cache, "/p", second, "two");
    EXPECT_EQ("two", found(cache, "/p", second));
    EXPECT_EQ("<none>", found(cache, "/p", first));
    ASSERT_TRUE(held);
    EXPECT_EQ("old", *held) << "an answer being built keeps its bytes";

    // /p holds one slot; 31 more fill the cache, the next pushes /p out.
    for (size_t i = 1; i < CHTTPFileCache::c_entries; ++i)
        put(cache, "/n" + std::to_string(i), first, "abc");
    EXPECT_EQ("two", found(cache, "/p", second));
    put(cache, "/extra", first, "xyz");
    EXPECT_EQ("<none>", found(cache, "/p", second));
    EXPECT_EQ("abc", found(cache, "/n1", first));
    EXPECT_EQ("xyz", found(cache, "/extra", first));
}

} // namespace
