#ifndef NVQSOCKETS_SOCKETOUTPUT_H
#define NVQSOCKETS_SOCKETOUTPUT_H

#include "KZF_Base/Linux/RefCount.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace NVQ
{

class CSocketTransport;

// One run of bytes on its way to the peer.
struct SOutputSegment {
    enum EKind : unsigned char {
        eGather, // in the writing thread's gather buffer (only while its delivery runs)
        eOwned,  // a private copy, m_pBlock allocated with new[]
        eHeld,   // the writer's own bytes, kept alive by m_pHolder (or, without a
                 // holder, lent only until the writing call returns)
        eFile    // a range of an open file, kept open by m_pHolder
    };
    EKind m_kind;
    int m_fileFd;
    unsigned char *m_pBlock;      // eOwned: the allocation (m_pData points into it)
    const unsigned char *m_pData; // next byte to send (memory kinds)
    size_t m_size;                // bytes still to send
    size_t m_capacity;            // eOwned: room from m_pData on, for appending
    int64_t m_fileOffset;         // eFile: next byte of the file
    KZF::IRefCount *m_pHolder;    // eHeld, eFile: one reference, dropped once sent
};

// Bytes of one connection that wait for the peer, oldest first. Empty (and
// holding no memory) while the peer keeps up.
class COutputQueue
{
  public:
    COutputQueue() : m_head(0), m_bytes(0) {}
    ~COutputQueue() { Clear(); }
    COutputQueue(const COutputQueue &) = delete;
    COutputQueue &operator=(const COutputQueue &) = delete;

    bool IsEmpty() const { return m_head == m_segments.size(); }
    // Memory bytes waiting (file ranges cost no memory and are not counted).
    size_t GetBufferedBytes() const { return m_bytes; }

    // Appends a copy of the bytes (to the last private block when it has
    // room).
    void AppendCopy(const void *data, size_t size);
    // Takes over a segment with what it holds (its block or its reference);
    // gather bytes are copied.
    void AppendSegment(const SOutputSegment &segment);

    // Sends as much as the transport takes. Result: 1 everything went, 0 the
    // socket is full (the rest waits), -1 the connection failed. `moved`
    // grows by the bytes sent.
    int Send(CSocketTransport &transport, int fd, uint64_t &moved);

    // Drops everything, releasing references and memory.
    void Clear();

  private:
    std::vector<SOutputSegment> m_segments;
    size_t m_head; // first segment not fully sent
    size_t m_bytes;
};

// Sends segments in order: runs of memory segments with one gathering write,
// file ranges with sendfile. Fully sent segments are released and `first`
// moves past them; a partly sent one is advanced. Result and `moved` as
// COutputQueue::Send.
int sendSegments(CSocketTransport &transport, int fd, SOutputSegment *segments, size_t count, size_t &first,
                 uint64_t &moved);

// Releases what a segment holds (its memory or its reference).
void releaseSegment(SOutputSegment &segment);

} // namespace NVQ

#endif
