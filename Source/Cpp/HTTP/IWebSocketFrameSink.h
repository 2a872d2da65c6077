#ifndef NVQ_HTTP_IWEBSOCKETFRAMESINK_H
#define NVQ_HTTP_IWEBSOCKETFRAMESINK_H

#include <cstddef>

namespace NVQ
{

// Receives what CWebSocketFrameParser finds, on the thread that calls Feed.
// Data pointers are never null and stay valid only until the call returns.
// Answering false from OnMessage, OnPing or OnPong stops the Feed call right
// after that frame (the rest of the input is left unconsumed); true goes on.
// A sink must not call back into the parser.
class IWebSocketFrameSink
{
  public:
    virtual ~IWebSocketFrameSink() {}

    // A whole message: eWsOpText (valid UTF-8) or eWsOpBinary.
    virtual bool OnMessage(int opcode, const unsigned char *data, size_t size) = 0;
    virtual bool OnPing(const unsigned char *data, size_t size) = 0;
    virtual bool OnPong(const unsigned char *data, size_t size) = 0;
    // The peer's close frame: an allowed code and a UTF-8 reason, or
    // eWsCloseNoStatus (1005) and no reason when it carried neither. The
    // parser reads nothing after it.
    virtual void OnClose(int code, const char *reason, size_t size) = 0;
};

} // namespace NVQ

#endif
