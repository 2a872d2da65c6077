#ifndef TESTS_SUPPORT_FAKEDATALAYER_H
#define TESTS_SUPPORT_FAKEDATALAYER_H

// An in-memory data layer that records every call the library makes on it
// and serves scripted reads, for driving a connection point without sockets.

#include "NVQCommon/Linux/INVQNotification.h"
#include "NVQSockets/Linux/INVQConnectionAddress.h"
#include "NVQSockets/Linux/INVQDataLayer.h"

#include <deque>
#include <string>
#include <vector>

namespace NVQTest
{

class CFakeAddress : public NVQ::INVQConnectionAddress
{
  public:
    explicit CFakeAddress(const std::string &text) : m_text(text) {}
    KZF::tstring ToString() const override { return m_text; }
    std::string m_text;
};

class CFakeDataLayer : public NVQ::INVQDataLayer
{
  public:
    // Writes above 1 MiB are recorded by size only.
    struct SWrite {
        int m_size;
        std::string m_bytes;
    };

    // Bytes that arrive, in the pieces ReadData hands them out (at most the
    // size asked for per call).
    void Arrive(const std::string &bytes) { m_pending.push_back(bytes); }

    int ReadData(void *buffer, int size) override
    {
        m_readSizes.push_back(size);
        if (m_pending.empty() || size <= 0)
            return 0;
        std::string &front = m_pending.front();
        const size_t n = std::min(front.size(), static_cast<size_t>(size));
        front.copy(static_cast<char *>(buffer), n);
        front.erase(0, n);
        if (front.empty())
            m_pending.pop_front();
        return static_cast<int>(n);
    }

    int SendData(const void *data, int size) override
    {
        if (m_failFromWrite >= 0 && static_cast<int>(m_writes.size()) >= m_failFromWrite) {
            // A broken connection: the close is delivered before the failed
            // write returns.
            if (m_failedWrites++ == 0)
                DeliverClose();
            return -1;
        }
        const bool recorded = size > 0 && size <= (1 << 20);
        m_writes.push_back({size, recorded ? std::string(static_cast<const char *>(data), size) : ""});
        return size;
    }

    void RegisterNotification(NVQ::INVQDataLayerNotification &notification) override
    {
        m_pNotification = &notification;
    }

    void UnregisterNotification(NVQ::INVQDataLayerNotification &notification) override
    {
        if (m_pNotification == &notification)
            m_pNotification = nullptr;
    }

    const NVQ::INVQConnectionAddress *GetRemoteAddress() const override { return &m_address; }
    bool IsSecure() const override { return false; }
    // A peer that reads slowly: the library waits for OnDataSent.
    bool IsWritable() override { return m_writable; }
    void SetReceivingBody(bool receiving) override { m_receivingBody = receiving; }

    void Close() override { ++m_closes; }
    void SetNoMoreInput() override { m_noMoreInput = true; }

    // What the framework would do: a data notification, or a close
    // notification, to whoever is registered.
    void DeliverData()
    {
        if (m_pNotification != nullptr)
            m_pNotification->OnDataReceived(*this);
    }
    void DeliverClose()
    {
        if (m_pNotification != nullptr)
            m_pNotification->OnConnectionClosed(*this);
    }

    // The recorded writes' bytes, each as one string.
    std::vector<std::string> WrittenItems() const
    {
        std::vector<std::string> items;
        for (const SWrite &write : m_writes)
            items.push_back(write.m_bytes);
        return items;
    }
    std::string WrittenBytes() const
    {
        std::string all;
        for (const std::string &item : WrittenItems())
            all += item;
        return all;
    }

    NVQ::INVQDataLayerNotification *m_pNotification = nullptr;
    std::deque<std::string> m_pending;
    std::vector<int> m_readSizes;
    std::vector<SWrite> m_writes;
    int m_closes = 0;
    bool m_noMoreInput = false;
    CFakeAddress m_address{"192.0.2.7:51234"};
    bool m_writable = true, m_receivingBody = false;
    // Writes from this index on fail (-1 leaves it off).
    int m_failFromWrite = -1;
    int m_failedWrites = 0;
};

} // namespace NVQTest

#endif
