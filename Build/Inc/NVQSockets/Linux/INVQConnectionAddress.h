#ifndef NVQSOCKETS_LINUX_INVQCONNECTIONADDRESS_H
#define NVQSOCKETS_LINUX_INVQCONNECTIONADDRESS_H

#include "KZF_Base/Linux/KzfTypes.h"

namespace NVQ
{

// One endpoint address of a connection.
class INVQConnectionAddress
{
  public:
    virtual ~INVQConnectionAddress() {}
    // Printable form, e.g. "192.0.2.7:51234" or "[2001:db8::1]:51234".
    virtual KZF::tstring ToString() const = 0;
};

} // namespace NVQ

#endif
