#include "KZF_Base/Linux/DataBuffer.h"

#include <gtest/gtest.h>

namespace
{

typedef KZF::CDataBuffer<unsigned char, KZF::CFakeSynchronizationObject> CByteBuffer;

// Element i holds i * 7 + 3, so kept elements can be told from fresh or moved ones.
bool pattern(CByteBuffer &buffer, unsigned long count, bool write)
{
    unsigned char *p = buffer;
    for (unsigned long i = 0; i < count; ++i) {
        if (write)
            p[i] = static_cast<unsigned char>(i * 7 + 3);
        if (p[i] != static_cast<unsigned char>(i * 7 + 3))
            return false;
    }
    return true;
}

bool isEmpty(CByteBuffer &buffer)
{
    return buffer.GetSize() == 0 && static_cast<unsigned char *>(buffer) == nullptr;
}

TEST(DataBufferTest, ResizingKeepsTheLeadingElementsAndZeroReleaseOrFailureEmptyIt)
{
    CByteBuffer buffer;
    EXPECT_TRUE(buffer.SetSize(0)) << "already empty";
    ASSERT_TRUE(buffer.SetSize(1024));
    pattern(buffer, 1024, true);
    ASSERT_TRUE(buffer.SetSize(1536));
    EXPECT_TRUE(pattern(buffer, 1024, false));
    pattern(buffer, 1536, true);
    ASSERT_TRUE(buffer.SetSize(16));
    EXPECT_EQ(16u, buffer.GetSize());
    EXPECT_TRUE(pattern(buffer, 16, false));
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

} // namespace
