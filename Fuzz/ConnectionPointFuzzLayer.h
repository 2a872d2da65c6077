#ifndef NVQ_FUZZ_CONNECTIONPOINTFUZZLAYER_H
#define NVQ_FUZZ_CONNECTIONPOINTFUZZLAYER_H

#include "FuzzTargets.h"

#include "NVQSockets/Linux/INVQMultiPointLayer.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <unistd.h>

// The connection point fuzzer's stand-in for the socket framework: one
// scripted connection, and a layer that hands it over; both check how the
// library uses them.

namespace NVQ
{
namespace fuzz
{

// A data layer that checks how the library uses it.
class CScriptedConnection : public NVQ::INVQDataLayer
{
  public:
    enum EBreak { eNoBreak, eBrokenWrite, eCloseDuringWrite };

    CScriptedConnection(EBreak breakMode, int breakAtWrite)
        : m_breakMode(breakMode), m_breakAtWrite(breakAtWrite)
    {
    }

    int ReadData(void *buffer, int size) override
    {
        NVQ_FUZZ_CHECK(m_closes == 0);
        NVQ_FUZZ_CHECK(buffer != nullptr && size > 0);
        if (m_pending.empty())
            return 0;
        std::string &front = m_pending.front();
        size_t n = std::min(front.size(), static_cast<size_t>(size));
        if (m_readLimit > 0)
            n = std::min(n, m_readLimit);
        front.copy(static_cast<char *>(buffer), n);
        front.erase(0, n);
        if (front.empty())
            m_pending.pop_front();
        return static_cast<int>(n);
    }

    int SendData(const void *data, int size) override { return SendDataHeld(data, size, nullptr); }

    int SendDataHeld(const void *data, int size, KZF::IRefCount *holder) override
    {
        SSegment segment;
        segment.m_bytes.assign(static_cast<const char *>(data), static_cast<size_t>(std::max(size, 0)));
        if (holder != nullptr) {
            holder->AddRef(); // held while it waits, as the framework does
            segment.m_pHolder = holder;
        }
        return Queue(segment, size, data);
    }

    int64_t SendFile(int fd, int64_t offset, int64_t size, KZF::IRefCount *holder) override
    {
        NVQ_FUZZ_CHECK(holder != nullptr && size > 0 && offset >= 0);
        SSegment segment;
        segment.m_fd = fd;
        segment.m_offset = offset;
        segment.m_size = size;
        holder->AddRef(); // keeps the file open until the range is sent
        segment.m_pHolder = holder;
        return Queue(segment, 1, &segment);
    }

    bool IsWritable() override
    {
        if (m_stallLimit > 0 && QueuedBytes() >= m_stallLimit && !m_peerGone && m_closes == 0) {
            m_wantSent = true;
            return false;
        }
        return true;
    }

    // The peer takes everything waiting; a writer that stopped goes on.
    void Drain()
    {
        for (SSegment &segment : m_queue) {
            if (segment.m_fd >= 0) {
                std::string bytes(static_cast<size_t>(segment.m_size), '\0');
                const ssize_t n = pread(segment.m_fd, &bytes[0], bytes.size(), segment.m_offset);
                NVQ_FUZZ_CHECK(n == static_cast<ssize_t>(bytes.size())); // the site does not change
                segment.m_bytes = bytes;
            }
            m_output += segment.m_bytes;
            if (segment.m_pHolder != nullptr)
                segment.m_pHolder->ReleaseRef();
        }
        m_queue.clear();
        if (m_wantSent && m_pNotification != nullptr && !m_peerGone) {
            m_wantSent = false;
            m_pNotification->OnDataSent(*this);
        }
    }

    // What a framework drops when the connection goes.
    void DropQueue()
    {
        for (SSegment &segment : m_queue) {
            if (segment.m_pHolder != nullptr)
                segment.m_pHolder->ReleaseRef();
        }
        m_queue.clear();
    }

  private:
    struct SSegment {
        std::string m_bytes;
        int m_fd = -1;
        int64_t m_offset = 0;
        int64_t m_size = 0;
        KZF::IRefCount *m_pHolder = nullptr;
    };

    size_t QueuedBytes() const
    {
        size_t bytes = 0;
        for (const SSegment &segment : m_queue)
            bytes += segment.m_fd >= 0 ? static_cast<size_t>(segment.m_size) : segment.m_bytes.size();
        return bytes;
    }

    int Queue(SSegment &segment, int size, const void *data)
    {
        // Nothing is written on a connection the server closed, nor after a
        // write failed: the answer under way is dropped.
        NVQ_FUZZ_CHECK(m_closes == 0);
        NVQ_FUZZ_CHECK(!m_writeFailed);
        NVQ_FUZZ_CHECK(size >= 0 && (size == 0 || data != nullptr));
        const int result = Write(size);
        if (result < 0) {
            if (segment.m_pHolder != nullptr)
                segment.m_pHolder->ReleaseRef(); // never reached the peer
            return result;
        }
        // What comes while the peer is behind waits behind what waits.
        m_queue.push_back(segment);
        if (m_stallLimit == 0)
            Drain();
        return result;
    }

    int Write(int size)
    {
        if (m_peerGone) {
            // As the framework does: the writer learns of the close.
            m_writeFailed = true;
            return -1;
        }
        if (m_breakMode != eNoBreak && m_writes++ == m_breakAtWrite) {
            // The peer leaves while this write is under way. A broken write
            // has delivered the close before it returns; otherwise the close
            // comes from another thread and this write itself got through.
            const bool broken = m_breakMode == eBrokenWrite;
            DeliverClose();
            m_writeFailed = broken;
            return broken ? -1 : size;
        }
        return size;
    }

  public:
    void RegisterNotification(NVQ::INVQDataLayerNotification &notification) override
    {
        NVQ_FUZZ_CHECK(m_pNotification == nullptr);
        m_pNotification = &notification;
    }

    void UnregisterNotification(NVQ::INVQDataLayerNotification &notification) override
    {
        if (m_pNotification == &notification)
            m_pNotification = nullptr;
    }

    void Close() override
    {
        NVQ_FUZZ_CHECK(m_pNotification == nullptr); // unregistered first
        ++m_closes;
        NVQ_FUZZ_CHECK(m_closes == 1);
    }

    void DeliverData()
    {
        if (m_pNotification != nullptr && !m_peerGone)
            m_pNotification->OnDataReceived(*this);
    }

    void DeliverClose()
    {
        if (m_pNotification == nullptr || m_peerGone)
            return;
        m_peerGone = true;
        // The framework delivers the close once; the point unregisters itself
        // when it goes away.
        m_pNotification->OnConnectionClosed(*this);
    }

    // Closed by the server, or left by the peer.
    bool Ended() const { return m_closes > 0 || m_peerGone; }

    std::deque<std::string> m_pending;
    size_t m_readLimit = 0;
    size_t m_stallLimit = 0; // the peer stops taking data once this much waits (0: never)
    std::string m_output;

  private:
    std::vector<SSegment> m_queue;
    bool m_wantSent = false;
    NVQ::INVQDataLayerNotification *m_pNotification = nullptr;
    EBreak m_breakMode;
    int m_breakAtWrite;
    int m_writes = 0;
    int m_closes = 0;
    bool m_peerGone = false;
    bool m_writeFailed = false;
};

class CAddress : public NVQ::INVQConnectionAddress
{
  public:
    KZF::tstring ToString() const override { return "127.0.0.1:7070"; }
};

// Hands the layer one connection at a time.
class COneConnectionLayer : public NVQ::INVQMultiPointLayer
{
  public:
    KZF::CRefCountPtr<NVQ::INVQDataLayer> CreateConnectionPoint(const NVQ::INVQConnectionAddress &,
                                                                const NVQ::INVQConnectionAddress &) override
    {
        return m_next;
    }
    void CloseConnection(NVQ::INVQDataLayer &) override {}
    void RegisterNotification(const NVQ::INVQMultiPointLayerNotification &notification) override
    {
        m_pNotification = const_cast<NVQ::INVQMultiPointLayerNotification *>(&notification);
    }
    void UnregisterNotification(const NVQ::INVQMultiPointLayerNotification &) override
    {
        m_pNotification = nullptr;
    }

    bool Accept(CScriptedConnection *connection)
    {
        m_next = connection;
        CAddress address;
        const bool taken = m_pNotification->NewConnectionRequested(*this, address, address);
        m_next = static_cast<NVQ::INVQDataLayer *>(nullptr);
        return taken;
    }

  private:
    NVQ::INVQMultiPointLayerNotification *m_pNotification = nullptr;
    KZF::CRefCountPtr<NVQ::INVQDataLayer> m_next;
};

} // namespace fuzz
} // namespace NVQ

#endif
