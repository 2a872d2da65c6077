#include "HTTP/HTTPFileCache.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace
{

const time_t c_now = 1000000;

struct stat makeStatus(ino_t inode, off_t size, time_t modified, time_t changed)
{
    struct stat status;
    std::memset(&status, 0, sizeof(status));
    status.st_mode = S_IFREG | 0644;
    status.st_dev = 3;
    status.st_ino = inode;
    status.st_size = size;
    status.st_mtim.tv_sec = modified;
    status.st_ctim.tv_sec = changed;
    return status;
}

std::string found(NVQ::CHTTPFileCache &cache, const std::string &path, const struct stat &status)
{
    const NVQ::CHTTPFileCache::TContent content = cache.Find(path, status);
    return content ? *content : std::string("<none>");
}

void put(NVQ::CHTTPFileCache &cache, const std::string &path, const struct stat &status,
         const std::string &data, time_t now = c_now)
{
    cache.Put(path, status, reinterpret_cast<const unsigned char *>(data.data()), data.size(), now);
}

TEST(HTTPFileCacheTest, ContentsAreUsedOnlyWhileTheFileIsUnchanged)
{
    NVQ::CHTTPFileCache cache;
    const struct stat kept = makeStatus(7, 5, c_now - 10, c_now - 10);
    put(cache, "/a", kept, "hello");
    EXPECT_EQ("hello", found(cache, "/a", kept));
    EXPECT_EQ("<none>", found(cache, "/b", kept)) << "another path";

    struct SCase {
        const char *change;
        struct stat status;
    };
    struct stat nanoseconds = kept;
    nanoseconds.st_mtim.tv_nsec = 1;
    struct stat device = kept;
    device.st_dev = 4;
    struct stat directory = kept;
    directory.st_mode = S_IFDIR | 0755;
    const SCase changed[] = {
        {"replaced by another inode", makeStatus(8, 5, c_now - 10, c_now - 10)},
        {"other size", makeStatus(7, 6, c_now - 10, c_now - 10)},
        {"modified", makeStatus(7, 5, c_now - 9, c_now - 9)},
        {"status changed (times set back)", makeStatus(7, 5, c_now - 10, c_now - 5)},
        {"modified within the same second", nanoseconds},
        {"other device", device},
        {"now a directory", directory},
    };
    for (const SCase &c : changed)
        EXPECT_EQ("<none>", found(cache, "/a", c.status)) << c.change;
}

TEST(HTTPFileCacheTest, WhatIsNotKept)
{
    NVQ::CHTTPFileCache cache;
    struct SCase {
        const char *why;
        struct stat status;
        std::string data;
    };
    struct stat fifo = makeStatus(1, 0, c_now - 10, c_now - 10);
    fifo.st_mode = S_IFIFO | 0644;
    const SCase cases[] = {
        {"modified too recently to tell a rewrite apart", makeStatus(1, 3, c_now - 1, c_now - 10), "abc"},
        {"status changed too recently", makeStatus(1, 3, c_now - 10, c_now - 1), "abc"},
        {"fewer bytes read than the size", makeStatus(1, 4, c_now - 10, c_now - 10), "abc"},
        {"larger than one piece", makeStatus(1, 8195, c_now - 10, c_now - 10), std::string(8195, 'x')},
        {"not a regular file", fifo, ""},
    };
    for (const SCase &c : cases) {
        put(cache, "/f", c.status, c.data);
        EXPECT_EQ("<none>", found(cache, "/f", c.status)) << c.why;
    }
    const struct stat largest = makeStatus(1, 8194, c_now - 2, c_now - 2);
    put(cache, "/f", largest, std::string(8194, 'y'));
    EXPECT_EQ(std::string(8194, 'y'), found(cache, "/f", largest)) << "one full piece, two seconds old";
}

TEST(HTTPFileCacheTest, NewContentsReplaceThePathsEntryAndTheOldestEntryMakesRoom)
{
    NVQ::CHTTPFileCache cache;
    const struct stat first = makeStatus(1, 3, c_now - 10, c_now - 10);
    const struct stat second = makeStatus(1, 3, c_now - 5, c_now - 5);
    put(cache, "/p", first, "one");
    put(cache, "/p", second, "two");
    EXPECT_EQ("two", found(cache, "/p", second));
    EXPECT_EQ("<none>", found(cache, "/p", first));

    // /p holds one slot; 31 more fill the cache, the next pushes /p out.
    for (size_t i = 1; i < NVQ::CHTTPFileCache::c_entries; ++i)
        put(cache, "/n" + std::to_string(i), first, "abc");
    EXPECT_EQ("two", found(cache, "/p", second));
    EXPECT_EQ("abc", found(cache, "/n1", first));
    put(cache, "/extra", first, "xyz");
    EXPECT_EQ("<none>", found(cache, "/p", second));
    EXPECT_EQ("abc", found(cache, "/n1", first));
    EXPECT_EQ("xyz", found(cache, "/extra", first));
}

TEST(HTTPFileCacheTest, ContentsFoundStayValidWhenTheEntryIsReplaced)
{
    NVQ::CHTTPFileCache cache;
    const struct stat status = makeStatus(1, 3, c_now - 10, c_now - 10);
    put(cache, "/p", status, "old");
    const NVQ::CHTTPFileCache::TContent held = cache.Find("/p", status);
    put(cache, "/p", makeStatus(2, 3, c_now - 10, c_now - 10), "new");
    ASSERT_TRUE(held);
    EXPECT_EQ("old", *held) << "an answer being built keeps its bytes";
}

} // namespace
