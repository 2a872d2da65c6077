#ifndef KZF_BASE_LINUX_DATABUFFER_H
#define KZF_BASE_LINUX_DATABUFFER_H

#include <algorithm>
#include <cstddef>
#include <new>

namespace KZF
{

// Lock policy for objects that only one thread touches at a time.
class CFakeSynchronizationObject
{
  public:
    void Lock() {}
    void Unlock() {}
};

// Resizable owned array. It has no growth policy: callers name the exact
// size. A lock policy used with it must be recursive, since SetSize calls
// Release while holding the lock.
template <class T, class TSyncObject> class CDataBuffer
{
  public:
    class CLock
    {
      public:
        explicit CLock(CDataBuffer &buffer) : m_buffer(buffer) { m_buffer.m_syncObject.Lock(); }
        ~CLock() { m_buffer.m_syncObject.Unlock(); }
        CLock(const CLock &) = delete;
        CLock &operator=(const CLock &) = delete;

      private:
        CDataBuffer &m_buffer;
    };

    CDataBuffer() : m_pStorage(NULL), m_storageSize(0) {}
    virtual ~CDataBuffer() { Release(); }
    CDataBuffer(const CDataBuffer &) = delete;
    CDataBuffer &operator=(const CDataBuffer &) = delete;

    // Resizes to exactly newSize elements, keeping the leading ones. Every
    // resize releases the old storage; when new storage cannot be obtained
    // the buffer is left empty and the result is false. SetSize(0) on a
    // non-empty buffer therefore also answers false.
    bool SetSize(unsigned long newSize)
    {
        CLock lock(*this);
        if (newSize == m_storageSize)
            return true;
        T *pNewStorage = NULL;
        bool result = false;
        if (newSize != 0) {
            pNewStorage = new (std::nothrow) T[newSize];
            result = pNewStorage != NULL;
            if (result) {
                unsigned long kept = newSize < m_storageSize ? newSize : m_storageSize;
                std::copy(m_pStorage, m_pStorage + kept, pNewStorage);
            }
        }
        Release();
        m_pStorage = pNewStorage;
        m_storageSize = pNewStorage != NULL ? newSize : 0;
        return result;
    }

    unsigned long GetSize() const { return m_storageSize; }

    operator T *() { return m_pStorage; }

    void Release()
    {
        CLock lock(*this);
        if (m_pStorage != NULL)
            delete[] m_pStorage;
        m_pStorage = NULL;
        m_storageSize = 0;
    }

  private:
    TSyncObject m_syncObject;
    T *m_pStorage;
    unsigned long m_storageSize;
};

} // namespace KZF

#endif
