#ifndef NVQ_HTTP_WEBSOCKETFRAMEWRITER_H
#define NVQ_HTTP_WEBSOCKETFRAMEWRITER_H

#include <cstddef>
#include <cstdint>

namespace NVQ
{

// Builds the frames a server sends (never masked). Data frames get only their
// header, so the payload goes out from where it is (writev of header and
// payload); control frames, at most 127 bytes, are built whole.
class CWebSocketFrameWriter
{
  public:
    static constexpr size_t c_maxHeaderSize = 10;
    static constexpr size_t c_maxControlPayload = 125;
    static constexpr size_t c_maxControlFrameSize = 2 + c_maxControlPayload;

    // Writes the header (2, 4 or 10 bytes) into out, which has room for
    // c_maxHeaderSize, and answers its length. A frame that cannot exist (an
    // undefined opcode, a control frame not final or over 125 bytes) is a
    // caller error: nothing is written and the answer is 0.
    static size_t WriteHeader(unsigned char *out, int opcode, bool fin, uint64_t payloadSize);

    // A whole close frame into out (c_maxControlFrameSize bytes). A code a
    // close frame may not carry (0, 1005, 1006, ...) gives one without a
    // payload, as when echoing a close that had none. The reason, UTF-8, is
    // cut at a character boundary to fit in 123 bytes.
    static size_t WriteClose(unsigned char *out, int code, const char *reason, size_t reasonSize);

    // Whole ping and pong frames into out (c_maxControlFrameSize bytes); a
    // payload over 125 bytes is a caller error and is cut.
    static size_t WritePing(unsigned char *out, const void *data, size_t size);
    static size_t WritePong(unsigned char *out, const void *data, size_t size);
};

} // namespace NVQ

#endif
