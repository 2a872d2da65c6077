#ifndef NVQ_FUZZ_FUZZTARGETS_H
#define NVQ_FUZZ_FUZZTARGETS_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// Entry points shared by the libFuzzer binaries and the corpus replay test.
// Each returns 0 and aborts on a broken invariant.

// Request parser. The first two bytes seed the slicing of the rest into Parse
// calls on a growing buffer.
int FuzzRequestParser(const uint8_t *data, size_t size);

// UriDecode, parameter splitting from a query and from a form body, and the
// name decoding.
int FuzzUrlParams(const uint8_t *data, size_t size);

// One whole connection through the HTTP layer with the file and log handlers,
// driven by a script of arrivals, reads and closes.
int FuzzConnectionPoint(const uint8_t *data, size_t size);

// WebSocket frames from a client. The first byte picks the frame and message
// limits, the second seeds the slicing and the pauses; the rest is the wire.
int FuzzWebSocketFrames(const uint8_t *data, size_t size);

// A multipart/form-data body (boundary "b"), parsed whole and in slices. The
// first byte picks small or default limits, the second seeds the slicing.
int FuzzMultipart(const uint8_t *data, size_t size);
// Client bytes to a server-side TLS transport (built with TLS only). The
// first byte picks the read size; the rest arrive, then the end of stream.
int FuzzTlsRecords(const uint8_t *data, size_t size);

#define NVQ_FUZZ_CHECK(condition)                                                                            \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);               \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (0)

#endif
