#include "KZF_Base/Linux/RefCountPtr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace
{

// Counts live instances so tests can see exactly when objects die.
struct CTracked : public KZF::CRefCount_Base {
    static int s_alive;
    CTracked() { ++s_alive; }
    ~CTracked() override { --s_alive; }
};
int CTracked::s_alive = 0;

class RefCountPtrTest : public ::testing::Test
{
  protected:
    void SetUp() override { CTracked::s_alive = 0; }
};

TEST_F(RefCountPtrTest, LastPointerDestroysTheObject)
{
    CTracked *raw = new CTracked();
    {
        KZF::CRefCountPtr<CTracked> first(raw);
        EXPECT_EQ(1, raw->GetRefCount());
        {
            KZF::CRefCountPtr<CTracked> copy(first);
            EXPECT_EQ(2, raw->GetRefCount());
        }
        EXPECT_EQ(1, CTracked::s_alive);
        EXPECT_EQ(1, raw->GetRefCount());
    }
    EXPECT_EQ(0, CTracked::s_alive);
}

TEST_F(RefCountPtrTest, AssigningReleasesTheOldObjectUnlessItIsTheHeldOne)
{
    KZF::CRefCountPtr<CTracked> p(new CTracked());
    CTracked *raw = p.GetPtr();
    p = raw;
    KZF::CRefCountPtr<CTracked> &alias = p;
    p = alias;
    EXPECT_EQ(1, CTracked::s_alive);
    EXPECT_EQ(1, raw->GetRefCount());
    EXPECT_EQ(raw, p.GetPtr());

    p = new CTracked();
    EXPECT_EQ(1, CTracked::s_alive);
    KZF::CRefCountPtr<CTracked> b(new CTracked());
    p = b;
    EXPECT_EQ(1, CTracked::s_alive);
    EXPECT_EQ(p.GetPtr(), b.GetPtr());
    p = static_cast<CTracked *>(nullptr);
    b = static_cast<CTracked *>(nullptr);
    EXPECT_EQ(0, CTracked::s_alive);
    EXPECT_TRUE(p.IsNull());
}

// The count base is not the first base, so the IRefCount sub-object sits at a
// different address from the complete object.
struct CFirstBase {
    virtual ~CFirstBase() {}
    long m_padding[3] = {1, 2, 3};
};
struct CCountNotFirst : public CFirstBase, public KZF::CRefCount_Base {
    int m_value = 42;
};

TEST_F(RefCountPtrTest, GetPtrReturnsTheCompleteObjectWhenTheCountBaseIsNotFirst)
{
    CCountNotFirst *raw = new CCountNotFirst();
    ASSERT_NE(static_cast<void *>(raw), static_cast<void *>(static_cast<KZF::IRefCount *>(raw)));
    KZF::CRefCountPtr<CCountNotFirst> p(raw);
    EXPECT_EQ(raw, p.GetPtr());
    EXPECT_EQ(42, p->m_value);
    KZF::CRefCountPtr<CCountNotFirst> copy(p);
    EXPECT_EQ(raw, copy.GetPtr());
    EXPECT_EQ(2, raw->GetRefCount());
}

// When the old object's destructor runs, the pointer must already hold the
// new object (destructors may look at or release other pointers).
struct CObserver : public KZF::CRefCount_Base {
    KZF::CRefCountPtr<CObserver> *m_pWatched = nullptr;
    CObserver **m_pSeen = nullptr;
    ~CObserver() override
    {
        if (m_pWatched != nullptr)
            *m_pSeen = m_pWatched->GetPtr();
    }
};

TEST_F(RefCountPtrTest, PointerHoldsTheNewObjectWhileTheOldOneIsDestroyed)
{
    KZF::CRefCountPtr<CObserver> p(new CObserver());
    CObserver *seen = nullptr;
    p->m_pWatched = &p;
    p->m_pSeen = &seen;
    CObserver *replacement = new CObserver();
    p = replacement;
    EXPECT_EQ(replacement, seen);
}

TEST_F(RefCountPtrTest, ArrowOnNullFailsTheCheckOrGivesNullWithChecksOff)
{
    KZF::CRefCountPtr<CTracked> p;
    EXPECT_DEATH((void)p.operator->(), "GetPtr\\(\\) != __null");
    const int saved = GetKzfAssertMode();
    SetKzfAssertMode(1);
    EXPECT_EQ(nullptr, p.operator->());
    SetKzfAssertMode(saved);
}

TEST_F(RefCountPtrTest, CountSurvivesCopiesOnManyThreads)
{
    KZF::CRefCountPtr<CTracked> shared(new CTracked());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&shared] {
            for (int i = 0; i < 20000; ++i) {
                KZF::CRefCountPtr<CTracked> local(shared);
                KZF::CRefCountPtr<CTracked> other;
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
