#ifndef NVQ_HTTP_IHTTPREQUESTBODYHANDLER_H
#define NVQ_HTTP_IHTTPREQUESTBODYHANDLER_H

#include "HTTP/HTTPRequest.h"
#include "HTTP/HTTPResponse.h"
#include "KZF_Base/Linux/RefCountPtr.h"

#include <cstddef>
#include <cstdint>

namespace NVQ
{

// Optional second interface of a request handler, for bodies too large to
// hold in memory (firmware images, uploads). A handler that implements it
// besides IHTTPRequestHandler sees a request's line and header fields before
// any body byte is read, and chooses at once what happens to the body.
//
// Order of calls for one request, all on the exchange's own thread:
//   OnRequestHeaders; then, when the body is taken, OnRequestBodyData for
//   each decoded piece as it arrives (chunked coding already removed) and
//   OnRequestBodyEnd once; then ProcessRequest and the usual pulls for the
//   answer (its request carries no body). A connection that closes midway
//   gets OnRequestBodyEnd(false, ...) and no ProcessRequest.
// While OnRequestBodyData runs the connection reads nothing more, so a slow
// consumer slows the client instead of filling memory.
class IHTTPRequestBodyHandler
{
  public:
    enum EBodyChoice {
        eBufferBody, // today's behaviour: the whole body buffered, up to the server's bound
        eTakeBody,   // the body in pieces, up to m_maxBodyBytes
        eAnswerNow   // m_answer goes out at once; the body is not read and the connection closes
    };

    struct SBodyDecision {
        SBodyDecision() : m_choice(eBufferBody), m_maxBodyBytes(0) {}
        EBodyChoice m_choice;
        // eTakeBody: a body above this many decoded bytes gets "413 Payload
        // Too Large" and a closed connection (0: no limit).
        uint64_t m_maxBodyBytes;
        // eAnswerNow: the complete answer (null gives the 404 answer).
        KZF::CRefCountPtr<CHTTPResponse> m_answer;
    };

    virtual ~IHTTPRequestBodyHandler() {}

    // The request holds its line and header fields. Called for every request
    // this handler takes by URI, with or without a body.
    virtual SBodyDecision OnRequestHeaders(CHTTPRequest &request, int connectionID) = 0;

    // One piece of a taken body. False stops the body: nothing more is read,
    // ProcessRequest follows at once for the answer, and the connection
    // closes after it (the rest of the body is never read).
    virtual bool OnRequestBodyData(const unsigned char *data, size_t size, int connectionID) = 0;

    // The taken body is over: complete, or cut short (connection closed,
    // limit passed, framing error) with complete false.
    virtual void OnRequestBodyEnd(bool complete, int connectionID) = 0;
};

} // namespace NVQ

#endif
