#ifndef NVQ_HTTP_WEBSOCKETFRAMEPARSER_H
#define NVQ_HTTP_WEBSOCKETFRAMEPARSER_H

#include "HTTP/IWebSocketFrameSink.h"
#include "HTTP/Utf8Validator.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace NVQ
{

// Incremental parser of the frames a WebSocket client sends (RFC 6455, no
// extensions). The owner feeds the bytes as they arrive, in pieces of any
// size; the parser keeps at most one frame header, one control payload and
// the message being reassembled, never the caller's input. Messages are
// delivered whole; control frames at once, also between fragments.
//
// Any protocol fault ends the parse with the close code to answer with:
// 1002 for framing faults, 1007 for text that is not UTF-8, 1009 for a frame
// or message over the limits (judged from the length field, before any of
// its payload is stored). Control frames are always accepted up to their
// protocol maximum of 125 bytes; the limits apply to data.
//
// Memory: the message buffer grows with the data actually received, up to
// the message limit, and is kept for the next message. Not thread-safe.
class CWebSocketFrameParser
{
  public:
    enum EResult {
        // Every byte given was consumed; more are needed.
        eResultMore = 0,
        // The sink asked to stop; consumed ends with the frame it was told of.
        eResultPaused = 1,
        // A close frame was delivered; consumed ends with it. Sticky.
        eResultClosed = 2,
        // consumed ends with the byte that showed the fault. Sticky.
        eResultError = 3
    };

    CWebSocketFrameParser(IWebSocketFrameSink &sink, size_t maxFramePayload, size_t maxMessageSize);
    ~CWebSocketFrameParser();

    // Parses data[0 .. size-1] after what came before, telling the sink of
    // each complete frame, and answers an EResult. consumed is set to the
    // number of bytes of data used; after Closed or Error it is 0 on later
    // calls.
    int Feed(const void *data, size_t size, size_t &consumed);

    // The close code to answer a failure with (1002, 1007, 1009, or 1011 when
    // memory ran out); 0 when there was none.
    int GetErrorCode() const { return m_errorCode; }

    // Starts over for a new connection; keeps the buffer.
    void Reset();

    // Frees the message buffer unless a message is in progress, for an owner
    // that wants idle connections small.
    void ReleaseBuffer();

    // Bytes held for messages, for the owner's memory accounting.
    size_t GetBufferSize() const { return m_messageCapacity; }

  private:
    CWebSocketFrameParser(const CWebSocketFrameParser &) = delete;
    CWebSocketFrameParser &operator=(const CWebSocketFrameParser &) = delete;

    enum EState { eStateHeader, eStatePayload, eStateClosed, eStateError };

    int Fail(int code);
    // Takes the header byte just stored; a close code on a fault, else 0.
    int CheckHeaderByte();
    int CheckLength(uint64_t length);
    int EndFrame();
    int EndControlFrame();
    bool Reserve(size_t size);

    IWebSocketFrameSink &m_sink;
    const size_t m_maxFramePayload;
    const size_t m_maxMessageSize;
    int m_state;
    int m_errorCode;

    // The frame being read.
    unsigned char m_header[14];
    size_t m_headerUsed;
    size_t m_headerSize;
    int m_opcode;
    bool m_fin;
    uint64_t m_payloadLeft;
    uint64_t m_payloadDone;

    // The data message being reassembled; m_messageOpcode 0 when none.
    int m_messageOpcode;
    std::unique_ptr<unsigned char[]> m_pMessage;
    size_t m_messageSize;
    size_t m_messageCapacity;
    CUtf8Validator m_utf8;

    unsigned char m_control[125];
    size_t m_controlSize;
};

} // namespace NVQ

#endif
