#ifndef NVQ_HTTP_IHTTPREQUESTHANDLER_H
#define NVQ_HTTP_IHTTPREQUESTHANDLER_H

#include "HTTP/HTTPRequest.h"
#include "HTTP/HTTPResponse.h"
#include "KZF_Base/Linux/KzfTypes.h"
#include "KZF_Base/Linux/RefCountPtr.h"

namespace NVQ
{

// A request handler answers requests for some set of URIs.
//
// For each complete request the server asks its registered handlers, in
// order, whether they take the URI; the first that does serves the exchange:
// one ProcessRequest for the first response, then, while the last response
// written is not marked last and the connection is open,
// GetAdditionalResponseData for the next piece. A null first response gives
// the client the 404 answer; a null piece ends the answer with an empty final
// piece (and the connection closes). Exchanges of different connections may
// run at the same time on different threads: guard per-connection state,
// keyed by the connection ID, with a lock of your own.
//
// InterruptProcessing says that a connection served by this handler closed;
// it does not say which one, and it may arrive on another thread while
// ProcessRequest or GetAdditionalResponseData runs. Keep it short: set a flag.
class IHTTPRequestHandler
{
  public:
    IHTTPRequestHandler() {}
    virtual ~IHTTPRequestHandler() {}

    virtual bool CanProcessUri(const KZF::tstring &uri) = 0;
    virtual KZF::CRefCountPtr<CHTTPResponse> ProcessRequest(CHTTPRequest &request, int connectionID) = 0;
    virtual KZF::CRefCountPtr<CHTTPResponse> GetAdditionalResponseData(int connectionID) = 0;
    virtual bool InterruptProcessing() = 0;
};

} // namespace NVQ

#endif
