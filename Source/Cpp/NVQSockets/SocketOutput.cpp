#include "SocketOutput.h"

#include "SocketTransport.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits.h>

namespace NVQ
{

namespace
{

// Private copies are made in blocks of at least this size, so that the
// many small writes of a header block share one allocation.
constexpr size_t c_minBlockSize = 4096;
// One gathering write takes at most this many segments.
constexpr int c_maxParts = 64;
// sendfile moves at most this much per call (the kernel's own cap is near
// 2 GiB; staying well below keeps one call from monopolising a loop).
constexpr size_t c_maxFileChunk = 1u << 30;

bool isMemory(const SOutputSegment &segment)
{
    return segment.m_kind != SOutputSegment::eFile;
}

} // namespace

void releaseSegment(SOutputSegment &segment)
{
    if (segment.m_kind == SOutputSegment::eOwned)
        delete[] segment.m_pBlock;
    else if (segment.m_pHolder != nullptr)
        segment.m_pHolder->ReleaseRef();
    segment.m_pBlock = nullptr;
    segment.m_pHolder = nullptr;
    segment.m_size = 0;
}

int sendSegments(CSocketTransport &transport, int fd, SOutputSegment *segments, size_t count, size_t &first,
                 uint64_t &moved)
{
    while (first < count) {
        SOutputSegment &segment = segments[first];
        if (segment.m_size == 0) {
            releaseSegment(segment);
            ++first;
            continue;
        }
        if (segment.m_kind == SOutputSegment::eFile) {
            const ssize_t n = transport.SendFile(fd, segment.m_fileFd, segment.m_fileOffset,
                                                 std::min(segment.m_size, c_maxFileChunk));
            if (n > 0) {
                moved += static_cast<uint64_t>(n);
                segment.m_fileOffset += n;
                segment.m_size -= static_cast<size_t>(n);
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                return 0;
            // 0: the file ended before the range did (it was cut meanwhile);
            // the answer can no longer be what was announced.
            return -1;
        }
        struct iovec parts[c_maxParts];
        int used = 0;
        size_t i = first;
        for (; i < count && used < c_maxParts && isMemory(segments[i]); ++i) {
            if (segments[i].m_size == 0)
                continue;
            parts[used].iov_base = const_cast<unsigned char *>(segments[i].m_pData);
            parts[used].iov_len = segments[i].m_size;
            ++used;
        }
        // A header block followed by file bytes: let them share a segment.
        const bool more = i < count && !isMemory(segments[i]);
        const ssize_t n = transport.Write(fd, parts, used, more);
        if (n < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
        moved += static_cast<uint64_t>(n);
        size_t sent = static_cast<size_t>(n);
        while (first < count && isMemory(segments[first]) && sent >= segments[first].m_size) {
            sent -= segments[first].m_size;
            releaseSegment(segments[first]);
            ++first;
        }
        if (sent > 0) {
            SOutputSegment &partial = segments[first];
            partial.m_pData += sent;
            partial.m_size -= sent;
            if (partial.m_kind == SOutputSegment::eOwned)
                partial.m_capacity -= sent;
            return 0; // the kernel took less than offered: it is full
        }
    }
    return 1;
}

void COutputQueue::AppendCopy(const void *data, size_t size)
{
    if (size == 0)
        return;
    m_bytes += size;
    if (!IsEmpty()) {
        SOutputSegment &last = m_segments.back();
        if (last.m_kind == SOutputSegment::eOwned && last.m_capacity - last.m_size >= size) {
            std::memcpy(const_cast<unsigned char *>(last.m_pData) + last.m_size, data, size);
            last.m_size += size;
            return;
        }
    }
    SOutputSegment segment;
    std::memset(&segment, 0, sizeof(segment));
    segment.m_kind = SOutputSegment::eOwned;
    segment.m_capacity = std::max(size, c_minBlockSize);
    segment.m_pBlock = new unsigned char[segment.m_capacity];
    segment.m_pData = segment.m_pBlock;
    std::memcpy(segment.m_pBlock, data, size);
    segment.m_size = size;
    m_segments.push_back(segment);
}

void COutputQueue::AppendSegment(const SOutputSegment &segment)
{
    if (segment.m_size == 0)
        return;
    // Gathered bytes, and bytes lent only for the length of a call, must be
    // copied to wait.
    if (segment.m_kind == SOutputSegment::eGather ||
        (segment.m_kind == SOutputSegment::eHeld && segment.m_pHolder == nullptr)) {
        AppendCopy(segment.m_pData, segment.m_size);
        return;
    }
    if (segment.m_kind != SOutputSegment::eFile)
        m_bytes += segment.m_size;
    if (segment.m_kind == SOutputSegment::eFile && !IsEmpty()) {
        SOutputSegment &last = m_segments.back();
        if (last.m_kind == SOutputSegment::eFile && last.m_fileFd == segment.m_fileFd &&
            last.m_fileOffset + static_cast<int64_t>(last.m_size) == segment.m_fileOffset) {
            last.m_size += segment.m_size;
            if (segment.m_pHolder != nullptr)
                segment.m_pHolder->ReleaseRef(); // the earlier range holds the file already
            return;
        }
    }
    m_segments.push_back(segment);
}

int COutputQueue::Send(CSocketTransport &transport, int fd, uint64_t &moved)
{
    const int result = sendSegments(transport, fd, m_segments.data(), m_segments.size(), m_head, moved);
    if (result == 1) {
        m_segments.clear();
        m_segments.shrink_to_fit(); // an idle connection keeps no memory
        m_head = 0;
        m_bytes = 0;
        return 1;
    }
    size_t bytes = 0;
    for (size_t i = m_head; i < m_segments.size(); ++i) {
        if (isMemory(m_segments[i]))
            bytes += m_segments[i].m_size;
    }
    m_bytes = bytes;
    return result;
}

void COutputQueue::Clear()
{
    for (size_t i = m_head; i < m_segments.size(); ++i)
        releaseSegment(m_segments[i]);
    m_segments.clear();
    m_segments.shrink_to_fit();
    m_head = 0;
    m_bytes = 0;
}

} // namespace NVQ
