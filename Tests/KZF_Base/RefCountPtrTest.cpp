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
    long m_padding[3] = {1, 2, 3};
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

TEST(RefCountPtrTest, AssigningReleasesTheOldObjectAfterTakingTheNewUnlessItIsTheHeldOne)
{
    CTracked::s_alive = 0;
    CPtr p(new CTracked());
    CTracked *raw = p.GetPtr();
    p = raw;
    CPtr &alias = p;
    p = alias;
    EXPECT_EQ(1, CTracked::s_alive);
    EXPECT_EQ(1, raw->GetRefCount());
    EXPECT_EQ(raw, p.GetPtr());
    CTracked *seen = nullptr;
    p->m_pWatched = &p;
    p->m_pSeen = &seen;
    CTracked *replacement = new CTracked();
    p = replacement;
    EXPECT_EQ(replacement, seen) << "the pointer holds the new object while the old one is destroyed";
    EXPECT_EQ(1, CTracked::s_alive);
    CPtr b(new CTracked());
    p = b;
    EXPECT_EQ(1, CTracked::s_alive);
    EXPECT_EQ(p.GetPtr(), b.GetPtr());
    p = static_cast<CTracked *>(nullptr);
    b = static_cast<CTracked *>(nullptr);
    EXPECT_EQ(0, CTracked::s_alive);
    EXPECT_TRUE(p.IsNull());
}

TEST(RefCountPtrTest, ArrowOnNullFailsTheCheckOrGivesNullWithChecksOff)
{
    CPtr p;
    EXPECT_DEATH((void)p.operator->(), "GetPtr\\(\\) != __null");
    const int saved = GetKzfAssertMode();
    SetKzfAssertMode(1);
    EXPECT_EQ(nullptr, p.operator->());
    SetKzfAssertMode(saved);
}

TEST(RefCountPtrTest, CopiesOnManyThreadsKeepTheCountAndTheLastDestroysTheCompleteObject)
{
    CTracked::s_alive = 0;
    CTracked *raw = new CTracked();
    ASSERT_NE(static_cast<void *>(raw), static_cast<void *>(static_cast<KZF::IRefCount *>(raw)));
    CPtr shared(raw);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&shared] {
            for (int i = 0; i < 20000; ++i) {
                CPtr local(shared), other;
                other = local;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(1, shared->GetRefCount());
    shared = static_cast<CTracked *>(nullptr);
    EXPECT_EQ(0, CTracked::s_alive);
}

} // namespace
