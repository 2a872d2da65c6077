#ifndef NVQ_HTTP_WEBSOCKETSESSION_H
#define NVQ_HTTP_WEBSOCKETSESSION_H

#include "HTTP/IHTTPConnectionTaker.h"
#include "HTTP/IWebSocketFrameSink.h"
#include "HTTP/IWebSocketHandler.h"
#include "HTTP/WebSocketFrameParser.h"
#include "KZF_Base/Linux/KzfTypes.h"
#include "NVQCommon/Linux/INVQNotification.h"

#include <atomic>
#include <cstddef>
#include <mutex>

namespace NVQ
{

// One WebSocket connection after its opening handshake. Created by
// CHTTPWebSocketEndpoint and handed the connection with the 101 answer; from
// then on it reads frames, answers pings, runs the close handshake, keeps a
// quiet connection alive with pings at the server's idle timeout, and sends
// what the application gives it.
//
// Sending is allowed from any thread and never waits for the client: a frame
// that would put more than the send queue limit behind a slow client is not
// sent (see IWebSocketHandler::OnSendQueueFull). All sends answer false once
// the session is closing or closed.
class CWebSocketSession : public IHTTPConnectionTaker,
                          public INVQDataLayerNotification,
                          private IWebSocketFrameSink
{
  public:
    struct SLimits {
        SLimits() : m_maxFramePayload(1u << 20), m_maxMessageSize(1u << 20), m_sendQueueLimit(1u << 20) {}
        // Over either, the client is closed with 1009.
        size_t m_maxFramePayload;
        size_t m_maxMessageSize;
        // Bytes allowed to wait for the client; at most 1 MiB (beyond that
        // the connection would hold up the sender).
        size_t m_sendQueueLimit;
    };

    // context: the handler's record of the client (may be null).
    CWebSocketSession(IWebSocketHandler &handler, const SLimits &limits, const KZF::tstring &protocol,
                      KZF::CRefCount_Base *context);
    ~CWebSocketSession() override;

    bool SendText(const char *data, size_t size);
    bool SendBinary(const void *data, size_t size);
    // payload at most 125 bytes.
    bool Ping(const void *data, size_t size);
    // Starts the close handshake: the close frame goes out, and the
    // connection ends when the client answers (or at the idle timeout). A
    // code a close frame cannot carry sends one without a code.
    bool Close(int code, const char *reason = "");

    // Asks for IWebSocketHandler::OnWritable once what is queued now has gone
    // to the kernel. Any thread.
    void RequestWritable();

    bool IsOpen() const;
    int GetConnectionID() const { return m_connectionID; }
    const KZF::tstring &GetProtocol() const { return m_protocol; }
    // Bytes waiting for the client.
    size_t GetPendingOutput() const;
    // What the handler gave with its acceptance (IWebSocketHandler::SUpgrade).
    KZF::CRefCount_Base *GetContext() const { return m_context.GetPtr(); }

    // IHTTPConnectionTaker
    void TakeConnection(INVQDataLayer &connection, const unsigned char *buffered, size_t size,
                        int connectionID) override;

    // INVQDataLayerNotification
    void OnDataReceived(INVQDataLayer &connection) override;
    void OnDataSent(INVQDataLayer &connection) override;
    void OnConnectionClosed(INVQDataLayer &connection) override;
    bool OnIdle(INVQDataLayer &connection) override;

  private:
    enum EState { eStateNew, eStateOpen, eStateClosing, eStateClosed };

    bool OnMessage(int opcode, const unsigned char *data, size_t size) override;
    bool OnPing(const unsigned char *data, size_t size) override;
    bool OnPong(const unsigned char *data, size_t size) override;
    void OnClose(int code, const char *reason, size_t size) override;

    void Consume(const unsigned char *data, size_t size);
    // Sends one frame unless the session is past open (closeFrame: unless
    // it is closed) or the client is too far behind; `full` tells which.
    bool SendFrame(int opcode, const void *data, size_t size, bool &full);
    bool SendMessage(int opcode, const void *data, size_t size);
    // The client is too far behind: the handler decides.
    void QueueFull();
    // Sends a close frame (unless one went already) and ends the session;
    // from another thread the end follows on the connection's thread.
    void Fail(int code);
    bool SendClose(int code, const char *reason, size_t size);
    // Ends the session once: unregisters, closes, tells the handler.
    void Finish(int code);
    // A write failed inside a delivery of ours: end the session now.
    void FinishIfDropped();

    IWebSocketHandler &m_handler;
    const SLimits m_limits;
    const KZF::tstring m_protocol;
    CWebSocketFrameParser m_parser;
    INVQDataLayer *m_pConnection; // one reference once taken
    int m_connectionID;
    const KZF::CRefCountPtr<KZF::CRefCount_Base> m_context;
    bool m_pingOutstanding;      // the idle ping got no traffic back yet
    bool m_closeSent;            // guarded by m_mutex
    std::atomic<bool> m_dropped; // the connection failed inside one of our sends
    std::atomic<int> m_failCode; // the code a failure on another thread closed with
    std::atomic<int> m_state;    // changed under m_mutex
    std::atomic<bool> m_finished;
    mutable std::mutex m_mutex; // one frame at a time; the state
};

} // namespace NVQ

#endif
