#include "KZF_Base/Linux/RefCount.h"

namespace KZF
{

long CRefCount_Base::AddRef()
{
    return m_refCount.fetch_add(1, std::memory_order_relaxed) + 1;
}

long CRefCount_Base::ReleaseRef()
{
    // acq_rel: every use of the object by other owners happens before the
    // owner that drops the last reference destroys it.
    const long remaining = m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (remaining == 0)
        delete this;
    return remaining;
}

void *CRefCount_Base::GetReferencedObject()
{
    return dynamic_cast<void *>(this);
}

} // namespace KZF
