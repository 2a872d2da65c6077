#include "HTTP/HTTPFileCache.h"

namespace NVQ
{

bool CHTTPFileCache::Matches(const SEntry &entry, const struct stat &status)
{
    return entry.m_device == status.st_dev && entry.m_inode == status.st_ino &&
           entry.m_size == status.st_size && entry.m_modified.tv_sec == status.st_mtim.tv_sec &&
           entry.m_modified.tv_nsec == status.st_mtim.tv_nsec &&
           entry.m_changed.tv_sec == status.st_ctim.tv_sec &&
           entry.m_changed.tv_nsec == status.st_ctim.tv_nsec;
}

CHTTPFileCache::TContent CHTTPFileCache::Find(const KZF::tstring &path, const struct stat &status)
{
    if (!S_ISREG(status.st_mode) || static_cast<size_t>(status.st_size) > c_maxFileSize)
        return TContent();
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const SEntry &entry : m_entries) {
        if (entry.m_content && entry.m_path == path)
            return Matches(entry, status) ? entry.m_content : TContent();
    }
    return TContent();
}

void CHTTPFileCache::Put(const KZF::tstring &path, const struct stat &status, const unsigned char *data,
                         size_t size, time_t now)
{
    if (!S_ISREG(status.st_mode) || size != static_cast<size_t>(status.st_size) || size > c_maxFileSize ||
        now - status.st_mtim.tv_sec < c_settleSeconds || now - status.st_ctim.tv_sec < c_settleSeconds)
        return;
    // Built before the lock: the copy is the only costly step.
    TContent content = std::make_shared<const std::string>(reinterpret_cast<const char *>(data), size);
    std::lock_guard<std::mutex> lock(m_mutex);
    SEntry *slot = nullptr;
    for (SEntry &entry : m_entries) {
        if (entry.m_content && entry.m_path == path) {
            slot = &entry;
            break;
        }
    }
    if (slot == nullptr) {
        slot = &m_entries[m_next];
        m_next = (m_next + 1) % c_entries;
        slot->m_path = path;
    }
    slot->m_device = status.st_dev;
    slot->m_inode = status.st_ino;
    slot->m_size = status.st_size;
    slot->m_modified = status.st_mtim;
    slot->m_changed = status.st_ctim;
    // The replaced contents end up in `content`, freed after the lock is gone.
    slot->m_content.swap(content);
}

} // namespace NVQ
