#ifndef NVQ_HTTP_HTTPFILECACHE_H
#define NVQ_HTTP_HTTPFILECACHE_H

#include "KZF_Base/Linux/KzfTypes.h"

#include <sys/stat.h>

#include <cstddef>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

namespace NVQ
{

// The contents of a few small files, so that a file served again costs no
// open, read and close. An entry is used only while the file's status (the
// stat the caller just made) still names the same inode with the same size,
// modification and change times; a file whose times are too recent to tell
// a later same-second rewrite apart is not kept at all. Safe from any thread.
class CHTTPFileCache
{
  public:
    static constexpr size_t c_entries = 32;
    // Files up to this size are kept: together at most 32 x 8194 bytes.
    static constexpr size_t c_maxFileSize = 8194;
    // Times closer than this to the moment of reading are not trusted: file
    // systems with whole-second times could hide a rewrite within the second.
    static constexpr time_t c_settleSeconds = 2;

    typedef std::shared_ptr<const std::string> TContent;

    // The kept contents of `path` when `status` matches what was kept; null
    // otherwise.
    TContent Find(const KZF::tstring &path, const struct stat &status);

    // Keeps the contents read from `path` through a descriptor whose status
    // was `status`; `now` is the current wall-clock time.
    void Put(const KZF::tstring &path, const struct stat &status, const unsigned char *data, size_t size,
             time_t now);

  private:
    struct SEntry {
        KZF::tstring m_path;
        dev_t m_device = 0;
        ino_t m_inode = 0;
        off_t m_size = 0;
        struct timespec m_modified = {0, 0};
        struct timespec m_changed = {0, 0};
        TContent m_content;
    };

    static bool Matches(const SEntry &entry, const struct stat &status);

    std::mutex m_mutex;
    SEntry m_entries[c_entries];
    size_t m_next = 0; // the slot replaced next, round robin
};

} // namespace NVQ

#endif
