#include "HTTP/WebSocketSession.h"

#include "HTTP/WebSocketFrameWriter.h"
#include "HTTP/WebSocketTypes.h"

#include <climits>
#include <cstring>
#include <string>

namespace NVQ
{

namespace
{

// The session whose notification this thread is inside of. Its own thread
// may write a frame in two pieces (header, then payload from where it is):
// nothing else reaches the connection's queue meanwhile. Any other thread
// writes each frame in one piece, because the framework keeps the bytes of
// other threads apart and a frame split across two writes could have
// another frame put between its pieces.
thread_local const CWebSocketSession *t_pDelivering = nullptr;
// The session whose send this thread is inside of: a failed write reports
// the close at once, on the writing thread, while the send holds the lock.
thread_local const CWebSocketSession *t_pSending = nullptr;

class CScope
{
  public:
    CScope(const CWebSocketSession *&slot, const CWebSocketSession *session) : m_slot(slot), m_previous(slot)
    {
        slot = session;
    }
    ~CScope() { m_slot = m_previous; }

  private:
    const CWebSocketSession *&m_slot;
    const CWebSocketSession *m_previous;
};

// Frames up to this size are put together on the stack and written once.
constexpr size_t c_stackFrame = 4096;
// Read helping per ReadData.
constexpr size_t c_readSize = 16384;
// A message buffer beyond this is freed between messages, so that one large
// message does not stay with a connection that goes quiet.
constexpr size_t c_keptBuffer = 4096;

const char c_idlePing[] = "keep-alive";

} // namespace

CWebSocketSession::CWebSocketSession(IWebSocketHandler &handler, const SLimits &limits,
                                     const KZF::tstring &protocol, KZF::CRefCount_Base *context)
    : m_handler(handler), m_limits(limits), m_protocol(protocol),
      m_parser(*this, limits.m_maxFramePayload, limits.m_maxMessageSize), m_pConnection(nullptr),
      m_connectionID(-1), m_context(context), m_pingOutstanding(false), m_closeSent(false), m_dropped(false),
      m_failCode(0), m_state(eStateNew), m_finished(false)
{
}

CWebSocketSession::~CWebSocketSession()
{
    if (m_pConnection != nullptr)
        m_pConnection->ReleaseRef();
}

void CWebSocketSession::TakeConnection(INVQDataLayer &connection, const unsigned char *buffered, size_t size,
                                       int connectionID)
{
    const KZF::CRefCountPtr<CWebSocketSession> self(this);
    const CScope scope(t_pDelivering, this);
    connection.AddRef();
    m_pConnection = &connection;
    m_connectionID = connectionID;
    AddRef(); // the registration's hold, dropped by Finish
    connection.RegisterNotification(*this);
    connection.SetLongLived();
    m_state = eStateOpen;
    m_handler.OnOpen(*this);
    if (size > 0 && !m_finished)
        Consume(buffered, size);
    FinishIfDropped();
}

void CWebSocketSession::FinishIfDropped()
{
    if (m_dropped.load() && !m_finished.load())
        Finish(eWsCloseAbnormal);
}

bool CWebSocketSession::IsOpen() const
{
    return m_state.load() == eStateOpen;
}

size_t CWebSocketSession::GetPendingOutput() const
{
    return m_pConnection != nullptr ? m_pConnection->GetPendingOutput() : 0;
}

void CWebSocketSession::RequestWritable()
{
    if (m_pConnection != nullptr && !m_finished)
        m_pConnection->NotifyWhenWritable();
}

bool CWebSocketSession::SendText(const char *data, size_t size)
{
    return SendMessage(eWsOpText, data, size);
}

bool CWebSocketSession::SendBinary(const void *data, size_t size)
{
    return SendMessage(eWsOpBinary, data, size);
}

bool CWebSocketSession::Ping(const void *data, size_t size)
{
    if (size > CWebSocketFrameWriter::c_maxControlPayload)
        return false;
    return SendMessage(eWsOpPing, data, size);
}

bool CWebSocketSession::Close(int code, const char *reason)
{
    if (!SendClose(code, reason, std::strlen(reason)))
        return false;
    // The client answers with its own close frame; then the connection ends.
    return true;
}

bool CWebSocketSession::SendClose(int code, const char *reason, size_t size)
{
    unsigned char frame[CWebSocketFrameWriter::c_maxControlFrameSize];
    const size_t length = CWebSocketFrameWriter::WriteClose(frame, code, reason, size);
    const CScope sending(t_pSending, this);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closeSent || m_state.load() == eStateClosed || m_pConnection == nullptr)
        return false;
    m_closeSent = true;
    if (m_state.load() == eStateOpen)
        m_state = eStateClosing;
    // A close goes even to a client that is behind: it is small, and the
    // last thing sent.
    return m_pConnection->SendData(frame, static_cast<int>(length)) >= 0;
}

bool CWebSocketSession::SendMessage(int opcode, const void *data, size_t size)
{
    bool full = false;
    const bool sent = SendFrame(opcode, data, size, full);
    if (t_pDelivering == this && m_dropped.load())
        FinishIfDropped();
    else if (full)
        QueueFull();
    return sent;
}

bool CWebSocketSession::SendFrame(int opcode, const void *data, size_t size, bool &full)
{
    full = false;
    if (size > static_cast<size_t>(INT_MAX) - CWebSocketFrameWriter::c_maxHeaderSize)
        return false;
    unsigned char frame[c_stackFrame + CWebSocketFrameWriter::c_maxHeaderSize];
    const size_t header = CWebSocketFrameWriter::WriteHeader(frame, opcode, true, size);
    if (header == 0)
        return false;
    const CScope sending(t_pSending, this);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state.load() != eStateOpen || m_pConnection == nullptr)
        return false;
    INVQDataLayer &connection = *m_pConnection;
    // A frame larger than the limit still goes when nothing waits: the limit
    // measures how far behind the client is, not how large messages are.
    const size_t pending = connection.GetPendingOutput();
    if (pending > 0 && pending + header + size > m_limits.m_sendQueueLimit) {
        full = true;
        return false;
    }
    if (size <= c_stackFrame) {
        if (size > 0)
            std::memcpy(frame + header, data, size);
        return connection.SendData(frame, static_cast<int>(header + size)) >= 0;
    }
    if (t_pDelivering == this) {
        return connection.SendData(frame, static_cast<int>(header)) >= 0 &&
               connection.SendData(data, static_cast<int>(size)) >= 0;
    }
    std::string whole;
    whole.reserve(header + size);
    whole.append(reinterpret_cast<const char *>(frame), header);
    whole.append(static_cast<const char *>(data), size);
    return connection.SendData(whole.data(), static_cast<int>(whole.size())) >= 0;
}

void CWebSocketSession::QueueFull()
{
    if (m_handler.OnSendQueueFull(*this))
        Fail(eWsClosePolicyViolation);
}

void CWebSocketSession::Fail(int code)
{
    SendClose(code, "", 0);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state.load() == eStateClosed)
            return;
        m_failCode = code;
        m_state = eStateClosed;
    }
    if (t_pDelivering == this) {
        Finish(code);
        return;
    }
    // The connection's own thread ends it: unregistering here could wait for
    // a call of ours that waits for this thread.
    m_pConnection->NotifyWhenWritable();
}

void CWebSocketSession::Finish(int code)
{
    if (m_finished.exchange(true))
        return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state = eStateClosed;
    }
    m_pConnection->UnregisterNotification(*this);
    m_pConnection->Close();
    m_handler.OnClosed(*this, code);
    ReleaseRef(); // the caller holds a reference of its own
}

void CWebSocketSession::Consume(const unsigned char *data, size_t size)
{
    while (size > 0 && !m_finished) {
        size_t used = 0;
        const int result = m_parser.Feed(data, size, used);
        data += used;
        size -= used;
        if (result == CWebSocketFrameParser::eResultError) {
            Fail(m_parser.GetErrorCode());
            return;
        }
        if (result != CWebSocketFrameParser::eResultPaused)
            return;
    }
}

void CWebSocketSession::OnDataReceived(INVQDataLayer &connection)
{
    const KZF::CRefCountPtr<CWebSocketSession> self(this);
    const CScope scope(t_pDelivering, this);
    unsigned char buffer[c_readSize];
    while (!m_finished) {
        if (m_state.load() == eStateClosed) {
            // Failed from another thread: nothing more is read.
            Finish(m_failCode);
            return;
        }
        const int n = connection.ReadData(buffer, sizeof(buffer));
        if (n <= 0)
            break;
        m_pingOutstanding = false;
        Consume(buffer, static_cast<size_t>(n));
    }
    FinishIfDropped();
    if (!m_finished && m_parser.GetBufferSize() > c_keptBuffer)
        m_parser.ReleaseBuffer();
}

void CWebSocketSession::OnDataSent(INVQDataLayer &connection)
{
    (void)connection;
    const KZF::CRefCountPtr<CWebSocketSession> self(this);
    const CScope scope(t_pDelivering, this);
    if (m_finished)
        return;
    if (m_state.load() == eStateClosed) {
        Finish(m_failCode);
        return;
    }
    m_handler.OnWritable(*this);
    FinishIfDropped();
}

void CWebSocketSession::OnConnectionClosed(INVQDataLayer &connection)
{
    (void)connection;
    if (t_pSending == this) {
        // Inside our own send, with the lock held: it finishes on its way out.
        m_dropped = true;
        return;
    }
    const KZF::CRefCountPtr<CWebSocketSession> self(this);
    const CScope scope(t_pDelivering, this);
    const int code = m_failCode.load();
    Finish(code != 0 ? code : static_cast<int>(eWsCloseAbnormal));
}

bool CWebSocketSession::OnIdle(INVQDataLayer &connection)
{
    (void)connection;
    // A client that did not answer the last ping, or a close handshake that
    // got no answer in a whole period, is gone.
    if (m_pingOutstanding || m_state.load() != eStateOpen)
        return false;
    const CScope scope(t_pDelivering, this);
    bool full = false;
    const bool sent = SendFrame(eWsOpPing, c_idlePing, sizeof(c_idlePing) - 1, full);
    FinishIfDropped();
    if (!sent)
        return false;
    m_pingOutstanding = true;
    return true;
}

bool CWebSocketSession::OnMessage(int opcode, const unsigned char *data, size_t size)
{
    if (m_state.load() == eStateOpen)
        m_handler.OnMessage(*this, opcode == eWsOpText, data, size);
    return !m_finished;
}

bool CWebSocketSession::OnPing(const unsigned char *data, size_t size)
{
    SendMessage(eWsOpPong, data, size);
    return !m_finished;
}

bool CWebSocketSession::OnPong(const unsigned char *data, size_t size)
{
    (void)data;
    (void)size;
    return true;
}

void CWebSocketSession::OnClose(int code, const char *reason, size_t size)
{
    (void)reason;
    (void)size;
    // Echo the code (none when the client gave none), unless our own close
    // went first and this is its answer.
    SendClose(code, "", 0);
    Finish(m_dropped.load() ? static_cast<int>(eWsCloseAbnormal) : code);
}

} // namespace NVQ
