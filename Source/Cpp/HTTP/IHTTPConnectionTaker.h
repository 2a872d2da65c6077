#ifndef NVQ_HTTP_IHTTPCONNECTIONTAKER_H
#define NVQ_HTTP_IHTTPCONNECTIONTAKER_H

#include "KZF_Base/Linux/RefCount.h"
#include "NVQSockets/Linux/INVQDataLayer.h"

#include <cstddef>

namespace NVQ
{

// What a connection becomes after an answer that switches protocols (101 for
// a WebSocket) or starts an endless event stream. A handler puts one on the
// first response of an exchange (CHTTPResponse::SetConnectionTaker); once
// that response's header block is written, the HTTP side ends the exchange
// and hands the connection over: from then on it speaks no HTTP.
class IHTTPConnectionTaker : public KZF::CRefCount_Base
{
  public:
    // Called once, on the exchange's thread, with the connection (register a
    // notification of your own with it at once: the HTTP side no longer
    // listens) and the bytes that followed the request and were read
    // already. The connection stays open until the taker closes it.
    virtual void TakeConnection(INVQDataLayer &connection, const unsigned char *buffered, size_t size,
                                int connectionID) = 0;
};

} // namespace NVQ

#endif
