#ifndef KZF_BASE_LINUX_REFCOUNTPTR_H
#define KZF_BASE_LINUX_REFCOUNTPTR_H

#include "KZF_Base/Linux/KzfAssert.h"
#include "KZF_Base/Linux/RefCount.h"

#include <cstddef>

namespace KZF
{

// Intrusive reference-counted pointer. It keeps the object's IRefCount
// interface, never the ObjectType address, and asks the interface for the
// complete object on every access. ObjectType must therefore start at the
// beginning of the complete object (the class itself, or a base at its
// start); its count base may sit anywhere.
template <class ObjectType> class CRefCountPtr
{
  public:
    CRefCountPtr() : m_pRefCount(NULL) {}
    CRefCountPtr(ObjectType *p) : m_pRefCount(NULL) { SetPtr(p); }
    CRefCountPtr(const CRefCountPtr &other) : m_pRefCount(NULL) { SetPtr(other.m_pRefCount); }
    virtual ~CRefCountPtr() { SetPtr(NULL); }

    CRefCountPtr &operator=(ObjectType *p)
    {
        SetPtr(p);
        return *this;
    }
    CRefCountPtr &operator=(const CRefCountPtr &other)
    {
        SetPtr(other.m_pRefCount);
        return *this;
    }

    // The new reference is taken before the old one is dropped, so assigning
    // the held object again never destroys it, and m_pRefCount already holds
    // the new value while the old object's destructor runs.
    void SetPtr(IRefCount *p)
    {
        if (p != NULL)
            p->AddRef();
        IRefCount *old = m_pRefCount;
        m_pRefCount = p;
        if (old != NULL)
            old->ReleaseRef();
    }

    ObjectType *GetPtr() const
    {
        if (m_pRefCount == NULL)
            return NULL;
        return static_cast<ObjectType *>(m_pRefCount->GetReferencedObject());
    }

    bool IsNull() const { return GetPtr() == NULL; }

    operator ObjectType *() const { return GetPtr(); }

    ObjectType *operator->() const
    {
        KZF_ASSERT(GetPtr() != NULL);
        return GetPtr();
    }

  private:
    IRefCount *m_pRefCount;
};

} // namespace KZF

#endif
