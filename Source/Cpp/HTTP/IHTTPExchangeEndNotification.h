#ifndef NVQ_HTTP_IHTTPEXCHANGEENDNOTIFICATION_H
#define NVQ_HTTP_IHTTPEXCHANGEENDNOTIFICATION_H

namespace NVQ
{

// Optional second interface of a request handler. A handler that keeps state
// per connection implements it besides IHTTPRequestHandler to learn when an
// exchange it served has ended, however it ended: last piece written, null
// piece, connection closed or interrupted. Without it, state of an exchange
// cut short would live until the handler is destroyed, since connection IDs
// are never reused.
class IHTTPExchangeEndNotification
{
  public:
    virtual ~IHTTPExchangeEndNotification() {}

    // Called once per exchange whose ProcessRequest reached this handler,
    // after its last pull, on the exchange's own thread.
    virtual void OnExchangeEnded(int connectionID) = 0;
};

} // namespace NVQ

#endif
