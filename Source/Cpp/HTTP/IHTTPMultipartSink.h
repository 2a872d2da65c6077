#ifndef NVQ_HTTP_IHTTPMULTIPARTSINK_H
#define NVQ_HTTP_IHTTPMULTIPARTSINK_H

#include "HTTP/KeyValueMap.h"

#include <cstddef>
#include <string>

namespace NVQ
{

// Receives what CHTTPMultipartParser finds, on the thread that calls Feed or
// Finish. Answering false from a bool event stops the parser for good (it
// reports eResultStopped); true goes on. A sink must not call back into the
// parser.
class IHTTPMultipartSink
{
  public:
    // The header block of one part.
    struct SPart {
        // From `Content-Disposition: form-data; name=...; filename=...`;
        // filename* (UTF-8) wins over filename.
        std::string m_name;
        std::string m_filename;
        bool m_hasFilename = false; // a file input sends filename="" when empty
        // The Content-Type value as sent; empty when absent (text/plain then).
        std::string m_contentType;
        // Every field of the block, names in lower case, values trimmed.
        CKeyValueMap m_fields;
    };

    virtual ~IHTTPMultipartSink() {}

    virtual bool OnPartBegin(const SPart &part) = 0;
    // The next bytes of the current part: never empty, valid only during the
    // call; a span of the fed piece, or of the parser's own delimiter for
    // bytes held back at the end of an earlier piece.
    virtual bool OnPartData(const unsigned char *data, size_t size) = 0;
    virtual bool OnPartEnd() = 0;
    // The close delimiter: the form is complete (the epilogue is ignored).
    virtual void OnBodyEnd() = 0;
};

} // namespace NVQ

#endif
