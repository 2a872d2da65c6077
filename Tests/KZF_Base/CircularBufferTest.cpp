#include "KZF_Utilities/Linux/CircularBuffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <deque>
#include <random>
#include <string>

namespace
{

// Like the log entries the ring holds: a value-initialised element (time 0,
// empty text) is distinguishable from every stored one.
struct SEntry {
    long m_time;
    std::string m_text;
};

SEntry entry(long n)
{
    return SEntry{n + 1, "e" + std::to_string(n)};
}

typedef KZF::CCircularBuffer<SEntry, KZF::CStaticAllocator<SEntry, 1000>> CRing;

std::string textAt(const CRing &ring, long index)
{
    const SEntry *p = ring.GetElement(index);
    return p == nullptr ? "<null>" : p->m_text;
}

bool isFiller(const CRing &ring, long index)
{
    const SEntry *p = ring.GetElement(index);
    return p != nullptr && p->m_time == 0 && p->m_text.empty();
}

// Puts the ring's held range at [first, first + count) by restarting there;
// first must lie at least 1000 positions from what the ring holds.
void holdRange(CRing &ring, long first, long count)
{
    ring.AddElement(first, entry(first));
    ASSERT_EQ(1, ring.GetCount());
    for (long p = first + 1; p < first + count; ++p)
        ASSERT_EQ(p, ring.AddElementAtEnd(entry(p)));
}

TEST(CircularBufferTest, NewRingIsEmptyAndAppendsFromPositionZero)
{
    CRing ring(1000);
    EXPECT_EQ(0, ring.GetCount());
    EXPECT_EQ(nullptr, ring.GetElement(0));
    EXPECT_EQ(0, ring.AddElementAtEnd(entry(0)));
    EXPECT_EQ(1, ring.GetCount());
    EXPECT_EQ("e0", textAt(ring, 0));
}

TEST(CircularBufferTest, FullRingSlidesOnAppend)
{
    CRing ring(1000);
    for (long i = 0; i < 1000; ++i)
        ASSERT_EQ(i, ring.AddElementAtEnd(entry(i)));
    EXPECT_EQ(1000, ring.GetCount());
    EXPECT_EQ("e0", textAt(ring, 0));
    EXPECT_EQ("e999", textAt(ring, 999));
    EXPECT_EQ(nullptr, ring.GetElement(1000));
    EXPECT_EQ(nullptr, ring.GetElement(-1));

    EXPECT_EQ(1000, ring.AddElementAtEnd(entry(1000)));
    EXPECT_EQ(1000, ring.GetCount());
    EXPECT_EQ("e1", textAt(ring, 0));
    EXPECT_EQ("e1000", textAt(ring, 999));
}

TEST(CircularBufferTest, KeepsTheLastThousandAppendsOldestFirst)
{
    CRing ring(1000);
    const long total = 3517;
    for (long i = 0; i < total; ++i)
        ring.AddElementAtEnd(entry(i));
    ASSERT_EQ(1000, ring.GetCount());
    for (long index = 0; index < 1000; ++index)
        ASSERT_EQ("e" + std::to_string(total - 1000 + index), textAt(ring, index)) << "index " << index;
}

TEST(CircularBufferTest, StoringInsideTheRangeReplaces)
{
    CRing ring(1000);
    holdRange(ring, 2010, 5);
    ring.AddElement(2012, SEntry{7, "replaced"});
    EXPECT_EQ(5, ring.GetCount());
    EXPECT_EQ("replaced", textAt(ring, 2));
    EXPECT_EQ("e2011", textAt(ring, 1));
    EXPECT_EQ("e2013", textAt(ring, 3));
}

TEST(CircularBufferTest, StoringPastTheEndFillsTheGap)
{
    CRing ring(1000);
    holdRange(ring, 2010, 5); // [2010, 2015)
    ring.AddElement(2018, entry(2018));
    EXPECT_EQ(9, ring.GetCount());
    EXPECT_EQ("e2014", textAt(ring, 4));
    EXPECT_TRUE(isFiller(ring, 5));
    EXPECT_TRUE(isFiller(ring, 6));
    EXPECT_TRUE(isFiller(ring, 7));
    EXPECT_EQ("e2018", textAt(ring, 8));
    EXPECT_EQ(2019, ring.AddElementAtEnd(entry(2019)));
}

TEST(CircularBufferTest, StoringBeforeTheStartBecomesIndexZero)
{
    CRing ring(1000);
    holdRange(ring, 2010, 5);
    ring.AddElement(2008, entry(2008));
    EXPECT_EQ(7, ring.GetCount());
    EXPECT_EQ("e2008", textAt(ring, 0));
    EXPECT_TRUE(isFiller(ring, 1));
    EXPECT_EQ("e2010", textAt(ring, 2));
    EXPECT_EQ("e2014", textAt(ring, 6));
    EXPECT_EQ(2015, ring.AddElementAtEnd(entry(2015)));
}

TEST(CircularBufferTest, StoringBeforeAFullRingDropsTheNewest)
{
    CRing ring(1000);
    holdRange(ring, 5000, 1000); // [5000, 6000)
    ring.AddElement(4998, entry(4998));
    EXPECT_EQ(1000, ring.GetCount());
    EXPECT_EQ("e4998", textAt(ring, 0));
    EXPECT_TRUE(isFiller(ring, 1));
    EXPECT_EQ("e5000", textAt(ring, 2));
    EXPECT_EQ("e5997", textAt(ring, 999));
    EXPECT_EQ(5998, ring.AddElementAtEnd(entry(5998)));
}

TEST(CircularBufferTest, DistanceOfAThousandRestartsAndNineHundredNinetyNineExtends)
{
    struct SCase {
        const char *name;
        long position; // relative to the range [3000, 3010)
        bool restarts;
    };
    const SCase cases[] = {
        {"1000 past the first free position", 3010 + 1000, true},
        {"999 past the first free position", 3010 + 999, false},
        {"1000 before the start", 3000 - 1000, true},
        {"999 before the start", 3000 - 999, false},
    };
    for (const SCase &c : cases) {
        CRing ring(1000);
        holdRange(ring, 3000, 10);
        ring.AddElement(c.position, SEntry{99, "new"});
        if (c.restarts) {
            EXPECT_EQ(1, ring.GetCount()) << c.name;
            EXPECT_EQ("new", textAt(ring, 0)) << c.name;
            EXPECT_EQ(c.position + 1, ring.AddElementAtEnd(entry(0))) << c.name;
        } else {
            EXPECT_EQ(1000, ring.GetCount()) << c.name;
            const bool after = c.position > 3000;
            EXPECT_EQ("new", textAt(ring, after ? 999 : 0)) << c.name;
        }
    }
}

TEST(CircularBufferTest, EmptyRingExtendsTowardsANearPosition)
{
    CRing ring(1000);
    ring.AddElement(3, entry(3));
    EXPECT_EQ(4, ring.GetCount());
    EXPECT_TRUE(isFiller(ring, 0));
    EXPECT_TRUE(isFiller(ring, 2));
    EXPECT_EQ("e3", textAt(ring, 3));
}

TEST(CircularBufferTest, ExtremePositionsRestartInsteadOfOverflowing)
{
    CRing ring(1000);
    holdRange(ring, 5000, 3);
    ring.AddElement(LONG_MIN, entry(1));
    EXPECT_EQ(1, ring.GetCount());
    ring.AddElement(LONG_MAX - 5, entry(2));
    EXPECT_EQ(1, ring.GetCount());
    EXPECT_EQ("e2", textAt(ring, 0));
}

TEST(CircularBufferTest, ClearAllStartsOverAtPositionZero)
{
    CRing ring(1000);
    for (long i = 0; i < 1200; ++i)
        ring.AddElementAtEnd(entry(i));
    ring.ClearAll();
    EXPECT_EQ(0, ring.GetCount());
    EXPECT_EQ(nullptr, ring.GetElement(0));
    EXPECT_EQ(0, ring.AddElementAtEnd(entry(7)));
    EXPECT_EQ("e7", textAt(ring, 0));
}

// Random stores against a plain deque model of the held range: catches slot
// arithmetic that only goes wrong after the storage has wrapped.
TEST(CircularBufferTest, RandomStoresMatchAModelOfTheHeldRange)
{
    typedef KZF::CCircularBuffer<SEntry, KZF::CStaticAllocator<SEntry, 16>> CSmallRing;
    const long n = 16;
    CSmallRing ring(n);
    std::deque<std::string> model;
    long first = 0;
    std::mt19937 random(12345);
    for (int step = 0; step < 20000; ++step) {
        const long end = first + static_cast<long>(model.size());
        long position = 0;
        switch (random() % 4) {
        case 0:
            position = end;
            break;
        case 1:
            position = first + static_cast<long>(random() % (2 * n)) - n / 2;
            break;
        case 2:
            position = first - static_cast<long>(random() % (n + 2));
            break;
        default:
            position = end + static_cast<long>(random() % (n + 2));
            break;
        }
        const std::string text = "s" + std::to_string(step);
        ring.AddElement(position, SEntry{step + 1, text});

        if (position >= first && position < end) {
            model[static_cast<size_t>(position - first)] = text;
        } else if (first - position < n && position - end < n) {
            if (position >= end) {
                for (long p = end; p < position; ++p)
                    model.push_back("");
                model.push_back(text);
                while (static_cast<long>(model.size()) > n) {
                    model.pop_front();
                    ++first;
                }
            } else {
                for (long p = first - 1; p > position; --p)
                    model.push_front("");
                model.push_front(text);
                first = position;
                while (static_cast<long>(model.size()) > n)
                    model.pop_back();
            }
        } else {
            model.assign(1, text);
            first = position;
        }

        ASSERT_EQ(static_cast<long>(model.size()), ring.GetCount()) << "step " << step;
        for (long i = 0; i < ring.GetCount(); ++i)
            ASSERT_EQ(model[static_cast<size_t>(i)], ring.GetElement(i)->m_text)
                << "step " << step << " index " << i;
    }
}

TEST(CircularBufferTest, AllocatorSizeCheckFailsOnAnotherSize)
{
    EXPECT_DEATH(CRing ring(999), "size == maxSize");
}

} // namespace
