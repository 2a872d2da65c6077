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

constexpr long c_size = 16;
typedef KZF::CCircularBuffer<SEntry, KZF::CStaticAllocator<SEntry, c_size>> CRing;

// Random stores against a plain deque model of the held range: replacing
// inside it, extending either way with value-initialised fillers, sliding a
// full ring, restarting at a distance of the ring's size and clearing, also
// after the storage has wrapped; nothing outside the range is answered. The
// farthest positions restart the ring instead of overflowing.
TEST(CircularBufferTest, RandomStoresMatchAModelOfTheHeldRangeAndExtremesRestart)
{
    CRing ring(c_size);
    std::deque<std::string> model;
    long first = 0;
    std::mt19937 random(12345);
    for (int step = 0; step < 20000; ++step) {
        const long end = first + static_cast<long>(model.size());
        const std::string text = "s" + std::to_string(step);
        const unsigned kind = random() % 41;
        long position = end;
        if (kind == 40) {
            ring.ClearAll();
            model.clear();
            first = 0;
            continue;
        } else if (kind % 2 == 0) {
            ASSERT_EQ(end, ring.AddElementAtEnd(SEntry{step + 1, text}));
        } else {
            position = first + static_cast<long>(random() % (4 * c_size + 6)) - c_size - 2;
            ring.AddElement(position, SEntry{step + 1, text});
        }

        if (first - position >= c_size || position - end >= c_size) {
            model.assign(1, text);
            first = position;
        } else if (position < first) {
            model.insert(model.begin(), static_cast<size_t>(first - position), "");
            model.front() = text;
            model.resize(std::min<size_t>(model.size(), c_size));
            first = position;
        } else {
            model.resize(std::max(model.size(), static_cast<size_t>(position - first + 1)));
            model[static_cast<size_t>(position - first)] = text;
            for (; model.size() > c_size; ++first)
                model.pop_front();
        }

        ASSERT_EQ(static_cast<long>(model.size()), ring.GetCount()) << "step " << step;
        ASSERT_TRUE(ring.GetElement(-1) == nullptr && ring.GetElement(ring.GetCount()) == nullptr);
        for (long i = 0; i < ring.GetCount(); ++i) {
            const SEntry &e = *ring.GetElement(i);
            ASSERT_EQ(model[static_cast<size_t>(i)], e.m_text) << "step " << step << " index " << i;
            ASSERT_EQ(e.m_text.empty(), e.m_time == 0) << "step " << step << " index " << i;
        }
    }
    ring.AddElement(LONG_MIN, SEntry{1, "min"});
    EXPECT_EQ(1, ring.GetCount());
    ring.AddElement(LONG_MAX - 5, SEntry{2, "max"});
    EXPECT_EQ(1, ring.GetCount());
    EXPECT_EQ("max", ring.GetElement(0)->m_text);
}

} // namespace
