#ifndef KZF_UTILITIES_LINUX_CIRCULARBUFFER_H
#define KZF_UTILITIES_LINUX_CIRCULARBUFFER_H

#include "KZF_Base/Linux/KzfAssert.h"

namespace KZF
{

// Storage of exactly maxSize elements inside the allocator object itself, so
// a ring built on it never touches the heap for its slots.
template <class Element, long maxSize> class CStaticAllocator
{
  public:
    // The storage size is fixed; a different size is a caller error and is
    // ignored.
    void Allocate(long size)
    {
        KZF_ASSERT(size == maxSize);
        (void)size;
    }

    Element *GetBuffer() { return m_buffer; }
    const Element *GetBuffer() const { return m_buffer; }
    long GetBufferSize() const { return maxSize; }
    long GetBufferMaxSize() const { return maxSize; }

  private:
    Element m_buffer[maxSize];
};

// A bounded run of elements addressed by consecutive absolute positions.
// Elements can be stored inside the held range, near it (the range grows, and
// skipped positions get value-initialised elements) or far from it (the ring
// restarts). GetElement reads by index from the oldest element held.
//
// Slots are copy-assigned, never constructed or destroyed after the
// allocator's construction. No lock: the owner serialises every call and the
// use of the pointers GetElement returns.
template <class Element, class BufferAllocator> class CCircularBuffer
{
  public:
    explicit CCircularBuffer(long size) : m_count(0), m_firstPosition(0), m_firstIndex(0)
    {
        KZF_ASSERT(m_bufferAllocator.GetBufferMaxSize() > 0);
        m_bufferAllocator.Allocate(size);
    }

    void AddElement(long position, const Element &element)
    {
        const long maxSize = m_bufferAllocator.GetBufferSize();
        Element *pSlots = m_bufferAllocator.GetBuffer();
        const long endPosition = m_firstPosition + m_count;

        if (position >= m_firstPosition && position < endPosition) {
            pSlots[(position - m_firstPosition + m_firstIndex) % maxSize] = element;
            return;
        }

        if (IsNear(position, endPosition, maxSize)) {
            if (position >= endPosition) {
                const long firstFree = m_firstIndex + m_count;
                const long elementsToShift = position - endPosition;
                KZF_ASSERT(elementsToShift >= 0 && elementsToShift < maxSize);
                for (long i = 0; i < elementsToShift; ++i)
                    pSlots[(firstFree + i) % maxSize] = Element();
                pSlots[(firstFree + elementsToShift) % maxSize] = element;
                m_count += elementsToShift + 1;
                if (m_count > maxSize) {
                    const long dropped = m_count - maxSize;
                    m_firstPosition += dropped;
                    m_firstIndex = (m_firstIndex + dropped) % maxSize;
                    m_count = maxSize;
                }
            } else {
                const long elementsToShift = m_firstPosition - position;
                KZF_ASSERT(elementsToShift >= 0 && elementsToShift < maxSize);
                for (long i = 1; i < elementsToShift; ++i)
                    pSlots[(m_firstIndex - i + maxSize) % maxSize] = Element();
                const long target = (m_firstIndex - elementsToShift + maxSize) % maxSize;
                pSlots[target] = element;
                m_firstPosition = position;
                m_firstIndex = target;
                m_count += elementsToShift;
                // The newest positions fall off the far end; the start stays.
                if (m_count > maxSize)
                    m_count = maxSize;
            }
            return;
        }

        // Too far from what is held to keep any of it: restart at the position.
        m_firstIndex = 0;
        m_count = 1;
        m_firstPosition = position;
        pSlots[0] = element;
    }

    // Appends after the newest element; once full, the oldest is overwritten
    // and the held range slides by one. Returns the position used.
    long AddElementAtEnd(const Element &element)
    {
        const long position = m_firstPosition + m_count;
        AddElement(position, element);
        return position;
    }

    // Index 0 is the oldest element held; null outside the held range.
    const Element *GetElement(long index) const
    {
        const long position = m_firstPosition + index;
        if (position < m_firstPosition || position >= m_firstPosition + m_count)
            return nullptr;
        const long maxSize = m_bufferAllocator.GetBufferSize();
        const long offset = (position - m_firstPosition + m_firstIndex) % maxSize;
        KZF_ASSERT(offset >= 0 && offset < maxSize);
        return m_bufferAllocator.GetBuffer() + offset;
    }

    long GetCount() const { return m_count; }

    // Forgets what is held; the slots keep their elements until overwritten.
    void ClearAll()
    {
        m_firstIndex = 0;
        m_firstPosition = 0;
        m_count = 0;
    }

  private:
    // Fewer than maxSize positions before the start or past the first free
    // position. Differences that overflow a long are simply far.
    bool IsNear(long position, long endPosition, long maxSize) const
    {
        long before = 0;
        long after = 0;
        if (__builtin_sub_overflow(m_firstPosition, position, &before) ||
            __builtin_sub_overflow(position, endPosition, &after))
            return false;
        return maxSize > before && maxSize > after;
    }

    long m_count;
    long m_firstPosition;
    long m_firstIndex;
    BufferAllocator m_bufferAllocator;
};

} // namespace KZF

#endif
