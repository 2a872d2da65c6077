#include "KZF_Base/Linux/DataBuffer.h"

#include <gtest/gtest.h>

namespace
{

typedef KZF::CDataBuffer<unsigned char, KZF::CFakeSynchronizationObject> CByteBuffer;

void fillPattern(CByteBuffer &buffer)
{
    for (unsigned long i = 0; i < buffer.GetSize(); ++i)
        static_cast<unsigned char *>(buffer)[i] = static_cast<unsigned char>(i * 7 + 3);
}

bool hasPattern(CByteBuffer &buffer, unsigned long count)
{
    for (unsigned long i = 0; i < count; ++i) {
        if (static_cast<unsigned char *>(buffer)[i] != static_cast<unsigned char>(i * 7 + 3))
            return false;
    }
    return true;
}

bool isEmpty(CByteBuffer &buffer)
{
    return buffer.GetSize() == 0 && static_cast<unsigned char *>(buffer) == nullptr;
}

TEST(DataBufferTest, ResizingKeepsTheLeadingElementsAndSameSizeKeepsTheStorage)
{
    CByteBuffer buffer;
    EXPECT_TRUE(isEmpty(buffer));
    ASSERT_TRUE(buffer.SetSize(1024));
    fillPattern(buffer);
    unsigned char *before = buffer;
    EXPECT_TRUE(buffer.SetSize(1024));
    EXPECT_EQ(before, static_cast<unsigned char *>(buffer));
    ASSERT_TRUE(buffer.SetSize(1536));
    EXPECT_EQ(1536u, buffer.GetSize());
    EXPECT_TRUE(hasPattern(buffer, 1024));
    fillPattern(buffer);
    ASSERT_TRUE(buffer.SetSize(16));
    EXPECT_EQ(16u, buffer.GetSize());
    EXPECT_TRUE(hasPattern(buffer, 16));
}

TEST(DataBufferTest, SizeZeroReleaseAndFailedAllocationLeaveItEmpty)
{
    CByteBuffer buffer;
    EXPECT_TRUE(buffer.SetSize(0)) << "already empty";
    ASSERT_TRUE(buffer.SetSize(1024));
    EXPECT_FALSE(buffer.SetSize(0));
    EXPECT_TRUE(isEmpty(buffer));
    ASSERT_TRUE(buffer.SetSize(64));
    buffer.Release();
    buffer.Release();
    EXPECT_TRUE(isEmpty(buffer));
    ASSERT_TRUE(buffer.SetSize(64));
    // The whole address space, which no machine can give (half of it can
    // be had on a 32-bit target): the non-throwing new yields nothing.
    EXPECT_FALSE(buffer.SetSize(~0ul));
    EXPECT_TRUE(isEmpty(buffer));
}

// A lock policy that records how deep it is held: SetSize releases the old
// storage while it holds the lock, so the policy sees a nested lock.
struct CCountingLock {
    static int s_depth, s_maxDepth;
    void Lock() { s_maxDepth = std::max(s_maxDepth, ++s_depth); }
    void Unlock() { --s_depth; }
};
int CCountingLock::s_depth = 0, CCountingLock::s_maxDepth = 0;

TEST(DataBufferTest, ResizeTakesTheLockAgainInsideItself)
{
    {
        KZF::CDataBuffer<int, CCountingLock> buffer;
        ASSERT_TRUE(buffer.SetSize(8));
        EXPECT_EQ(0, CCountingLock::s_depth);
        EXPECT_EQ(2, CCountingLock::s_maxDepth);
    }
    EXPECT_EQ(0, CCountingLock::s_depth);
}

} // namespace
