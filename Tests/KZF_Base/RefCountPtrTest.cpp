#include "KZF_Base/Linux/RefCountPtr.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace
{

// Counts live instances so tests can see exactly when objects die; the
// count base is not the first base, so the IRefCount sub-object sits at a
// different address from the complete object. A destructor notes what the
// watched pointer holds at that moment.
struct CFirstBase {
    virtual ~CFirstBase() {}
};
struct CTracked : public CFirstBase, public KZF::CRefCount_Base {
    static int s_alive;
    CTracked() { ++s_alive; }
    ~CTracked() override
    {
        --s_alive;
        if (m_pWatched != nullptr)
            *m_pSeen = m_pWatched->GetPtr();
    }
    KZF::CRefCountPtr<CTracked> *m_pWatched = nullptr;
    CTracked **m_pSeen = nullptr;
};
int CTracked::s_alive = 0;
typedef KZF::CRefCountPtr<CTracked> CPtr;

TEST(RefCountPtrTest, AssignmentTakesTheNewBeforeReleasingTheOldAndCopiesOnManyThreadsKeepTheCount)
{
    CTracked *raw = new CTracked();
    ASSERT_NE(static_cast<void *>(raw), static_cast<void *>(static_cast<KZF::IRefCount *>(raw)));
    CPtr p(raw), &alias = p;
    p = raw;
    p = alias;
    EXPECT_EQ(1, CTracked::s_alive);
    EXPECT_EQ(1, raw->GetRefCount());
    CTracked *seen = nullptr;
    p->m_pWatched = &p;
    p->m_pSeen = &seen;
    CTracked *replacement = new CTracked();
    p = replacement;
    EXPECT_EQ(replacement, seen) << "the pointer holds the new object while the old one is destroyed";
    CPtr b(new CTracked());
    p = b;
    EXPECT_EQ(1, CTracked::s_alive);
    EXPECT_EQ(p.GetPtr(), b.GetPtr());
    p = static_cast<CTracked *>(nullptr);
    EXPECT_TRUE(p.IsNull());
    // Copies on many threads keep the count; the last one destroys the object.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&b] {
            for (int i = 0; i < 20000; ++i) {
                CPtr local(b), other;
                other = local;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(1, b->GetRefCount());
    b = static_cast<CTracked *>(nullptr);
    EXPECT_EQ(0, CTracked::s_alive);
}

} // namespace
