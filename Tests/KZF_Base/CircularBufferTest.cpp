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

typedef KZF::CCircularBuffer<SEntry, KZF::CStaticAllocator<SEntry, 1000>> CRing;

std::string textAt(const CRing &ring, long index)
{
    const SEntry *p = ring.GetElement(index);
    return p == nullptr ? "<null>" : p->m_text;
}

void append(CRing &ring, long from, long to)
{
    for (long i = from; i < to; ++i)
        ASSERT_EQ(i, ring.AddElementAtEnd(SEntry{i + 1, "e" + std::to_string(i)}));
}

TEST(CircularBufferTest, ExtremePositionsRestartInsteadOfOverflowing)
{
    CRing ring(1000);
    append(ring, 0, 3);
    ring.AddElement(LONG_MIN, SEntry{1, "min"});
    EXPECT_EQ(1, ring.GetCount());
    ring.AddElement(LONG_MAX - 5, SEntry{2, "max"});
    EXPECT_EQ(1, ring.GetCount());
    EXPECT_EQ("max", textAt(ring, 0));
}

// Random stores against a plain deque model of the held range: replacing
// inside it, extending either way with value-initialised fillers, sliding a
// full ring, restarting at a distance of the ring's size and clearing, also
// after the storage has wrapped; nothing outside the range is answered.
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
        const std::string text = "s" + std::to_string(step);
        const SEntry stored{step + 1, text};
        long position = end;
        const unsigned kind = random() % 41;
        if (kind == 40) {
            ring.ClearAll();
            model.clear();
            first = 0;
            continue;
        }
        switch (kind % 4) {
        case 0:
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
        if (kind % 4 == 0)
            ASSERT_EQ(end, ring.AddElementAtEnd(stored));
        else
            ring.AddElement(position, stored);

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
        ASSERT_EQ(nullptr, ring.GetElement(-1));
        ASSERT_EQ(nullptr, ring.GetElement(ring.GetCount()));
        for (long i = 0; i < ring.GetCount(); ++i) {
            const SEntry &e = *ring.GetElement(i);
            ASSERT_EQ(model[static_cast<size_t>(i)], e.m_text) << "step " << step << " index " << i;
            ASSERT_EQ(e.m_text.empty(), e.m_time == 0) << "step " << step << " index " << i;
        }
    }
}

TEST(CircularBufferTest, AllocatorSizeCheckFailsOnAnotherSize)
{
    EXPECT_DEATH(CRing ring(999), "size == maxSize");
}

} // namespace
