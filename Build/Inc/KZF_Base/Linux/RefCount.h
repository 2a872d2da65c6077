#ifndef KZF_BASE_LINUX_REFCOUNT_H
#define KZF_BASE_LINUX_REFCOUNT_H

#include <atomic>

namespace KZF
{

// The contract of every reference-counted object: the count lives in the
// object, and the last ReleaseRef destroys it through its virtual destructor.
class IRefCount
{
  public:
    virtual ~IRefCount() {}
    // Adds one reference; returns the new count.
    virtual long AddRef() = 0;
    // Drops one reference and destroys the object when none is left; returns
    // the count that remains.
    virtual long ReleaseRef() = 0;
    // Address of the complete object that holds this count, whichever base
    // sub-object the call is made on.
    virtual void *GetReferencedObject() = 0;
};

// Counting base for library objects. The count starts at 0, so the first
// pointer that takes a new object owns it. The count is atomic: requests,
// responses and connection points are shared across threads.
class CRefCount_Base : public IRefCount
{
  public:
    CRefCount_Base() : m_refCount(0) {}
    CRefCount_Base(const CRefCount_Base &) = delete;
    CRefCount_Base &operator=(const CRefCount_Base &) = delete;
    ~CRefCount_Base() override {}

    long AddRef() override;
    long ReleaseRef() override;
    void *GetReferencedObject() override;

    // Current count; for diagnostics and tests only.
    long GetRefCount() const { return m_refCount.load(std::memory_order_relaxed); }

  private:
    std::atomic<long> m_refCount;
};

} // namespace KZF

#endif
