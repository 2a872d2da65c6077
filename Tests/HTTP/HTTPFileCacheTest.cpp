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

// Contents are kept only for files settled long enough to tell a rewrite
// apart, and used only while the file's status is the same.
TEST(HTTPFileCacheTest, WhatIsKeptAndWhenItIsUsed)
{
    const struct stat kept = fileStatus(7, 5);
    const auto changed = [&kept](void (*change)(struct stat &)) {
        struct stat status = kept;
        change(status);
        return status;
    };
    const struct {
        const char *name;
        struct stat put;
        std::string data;
        struct stat found;
        std::string path, expected;
    } rows[] = {
        // clang-format off
        {"unchanged", kept, "hello", kept, "/f", "hello"}, {"another path", kept, "hello", kept, "/b", "<none>"},
        {"replaced by another inode", kept, "hello", fileStatus(8, 5), "/f", "<none>"},
        {"other size", kept, "hello", fileStatus(7, 6), "/f", "<none>"},
        {"modified", kept, "hello", fileStatus(7, 5, 9, 9), "/f", "<none>"},
        {"status changed (times set back)", kept, "hello", fileStatus(7, 5, 10, 5), "/f", "<none>"},
        {"modified within the same second", kept, "hello", changed([](struct stat &s) { s.st_mtim.tv_nsec = 1; }), "/f", "<none>"},
        {"status changed within the same second", kept, "hello", changed([](struct stat &s) { s.st_ctim.tv_nsec = 1; }), "/f", "<none>"},
        {"other device", kept, "hello", changed([](struct stat &s) { s.st_dev = 4; }), "/f", "<none>"},
        {"now a directory", kept, "hello", fileStatus(7, 5, 10, 10, S_IFDIR | 0755), "/f", "<none>"},
        {"modified too recently", fileStatus(1, 3, 1, 10), "abc", fileStatus(1, 3, 1, 10), "/f", "<none>"},
        {"status changed too recently", fileStatus(1, 3, 10, 1), "abc", fileStatus(1, 3, 10, 1), "/f", "<none>"},
        {"fewer bytes read than the size", fileStatus(1, 4), "abc", fileStatus(1, 4), "/f", "<none>"},
        {"larger than one piece", fileStatus(1, 8195), std::string(8195, 'x'), fileStatus(1, 8195), "/f", "<none>"},
        {"not a regular file", fileStatus(1, 0, 10, 10, S_IFIFO | 0644), "", fileStatus(1, 0, 10, 10, S_IFIFO | 0644), "/f", "<none>"},
        {"one full piece, two seconds old", fileStatus(1, 8194, 2, 2), std::string(8194, 'y'), fileStatus(1, 8194, 2, 2), "/f", std::string(8194, 'y')},
        // clang-format on
    };
    for (const auto &row : rows) {
        CHTTPFileCache cache;
        put(cache, "/f", row.put, row.data);
        EXPECT_EQ(row.expected, found(cache, row.path, row.found)) << row.name;
    }
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
