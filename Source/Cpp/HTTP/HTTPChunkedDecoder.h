#ifndef NVQ_HTTP_HTTPCHUNKEDDECODER_H
#define NVQ_HTTP_HTTPCHUNKEDDECODER_H

#include <cstddef>

namespace NVQ
{

// Incremental decoder of a chunked message body: chunk lines (size, optional
// extensions), chunk data, the last chunk, the trailer section and the final
// CR LF. It is fed the raw bytes in pieces of any size and keeps only a few
// counters between calls, never the bytes themselves: chunk data comes back
// as spans of the input, so nothing is copied and the body never has to be
// in one buffer. Extensions and trailer fields are checked and skipped.
// Every line end must be CR LF. Not thread-safe.
class CHTTPChunkedDecoder
{
  public:
    enum EResult { eResultDone = 0, eResultMore = 1, eResultError = 2 };

    enum EError {
        eErrorNone = 0,
        // A chunk line that does not start with a hex digit, or a size
        // followed by something other than blanks and ';', or CR.
        eErrorChunkSize = 1,
        // A chunk size of more than 15 hex digits.
        eErrorSizeOverflow = 2,
        // A control byte in a chunk extension, or a chunk line above 4096 bytes.
        eErrorExtension = 3,
        // A CR not followed by LF, or an LF without CR, in a chunk or trailer line.
        eErrorLineEnd = 4,
        // Chunk data not followed by exactly CR LF.
        eErrorDataEnd = 5,
        // A malformed trailer field line (no token name, blank before the
        // colon, folded line, control byte in the value), more than 32
        // trailer fields or more than 8 KiB of them.
        eErrorTrailer = 6,
        // The decoded size would pass the bound of SetMaxBodySize.
        eErrorTooLarge = 7
    };

    CHTTPChunkedDecoder();

    // Starts a new body; the bound stays.
    void Reset();

    // Bound of the decoded size (default LONG_MAX); a chunk size that would
    // pass it fails with eErrorTooLarge as soon as its digits show it.
    void SetMaxBodySize(long bytes) { m_maxSize = bytes < 0 ? 0 : bytes; }

    // Decodes from input[0 .. length). Stops right after the first piece of
    // chunk data it reaches, which it reports in data/dataSize (a span of
    // input; dataSize 0 when there is none), right after the final CR LF
    // (eResultDone), just past the byte that breaks the syntax
    // (eResultError), or at the end of input. consumed is the number of input
    // bytes used; with eResultMore the caller offers input + consumed next, or
    // more bytes once all are used. Done and error are sticky until Reset.
    int Decode(const unsigned char *input, size_t length, size_t &consumed, const unsigned char *&data,
               size_t &dataSize);

    // The number of data bytes reported so far.
    long GetDecodedSize() const { return m_decoded; }
    // The EError of a failure; eErrorNone otherwise.
    int GetError() const { return m_error; }

  private:
    void Step(unsigned char ch);
    void Fail(int error);

    int m_state;
    int m_error;
    int m_digits;
    int m_lineLength;
    int m_trailerFields;
    int m_trailerBytes;
    long m_chunkSize;
    long m_remaining;
    long m_decoded;
    long m_maxSize;
};

} // namespace NVQ

#endif
