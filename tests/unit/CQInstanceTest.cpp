#include "BaseClass/src/CQInstance.h"

#include <gtest/gtest.h>

namespace {

// Uids far from the ones the library uses (8, 11, 16).
constexpr int KUidA = 90001;
constexpr int KUidB = 90002;

// Removes the test's entries whatever the outcome of the test.
struct Cleanup
{
    ~Cleanup()
    {
        CQInstance::Instance()->RemoveByUid(KUidA);
        CQInstance::Instance()->RemoveByUid(KUidB);
    }
};

}  // namespace

TEST(CQInstance, InstanceIsOneProcessWideRegistry)
{
    CQInstance* registry = CQInstance::Instance();
    ASSERT_NE(nullptr, registry);
    EXPECT_EQ(registry, CQInstance::Instance());
}

TEST(CQInstance, UnknownUidGivesNull)
{
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(KUidA));
}

TEST(CQInstance, AddThenGetByUid)
{
    Cleanup cleanup;
    int a = 1;
    int b = 2;
    EXPECT_NE(0, CQInstance::Instance()->AddWithUid(&a, KUidA));
    EXPECT_NE(0, CQInstance::Instance()->AddWithUid(&b, KUidB));
    EXPECT_EQ(&a, CQInstance::Instance()->GetByUid(KUidA));
    EXPECT_EQ(&b, CQInstance::Instance()->GetByUid(KUidB));
}

TEST(CQInstance, AddWithExistingUidReplaces)
{
    Cleanup cleanup;
    int first = 1;
    int second = 2;
    ASSERT_NE(0, CQInstance::Instance()->AddWithUid(&first, KUidA));
    EXPECT_NE(0, CQInstance::Instance()->AddWithUid(&second, KUidA));
    EXPECT_EQ(&second, CQInstance::Instance()->GetByUid(KUidA));
    // The replaced object is untouched: the registry never owns.
    EXPECT_EQ(1, first);
}

TEST(CQInstance, AddNullIsRefusedAndKeepsEntry)
{
    Cleanup cleanup;
    int a = 1;
    EXPECT_EQ(0, CQInstance::Instance()->AddWithUid(nullptr, KUidA));
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(KUidA));
    ASSERT_NE(0, CQInstance::Instance()->AddWithUid(&a, KUidA));
    EXPECT_EQ(0, CQInstance::Instance()->AddWithUid(nullptr, KUidA));
    EXPECT_EQ(&a, CQInstance::Instance()->GetByUid(KUidA));
}

TEST(CQInstance, RemoveByUidForgetsOnlyThatEntry)
{
    Cleanup cleanup;
    int a = 1;
    int b = 2;
    ASSERT_NE(0, CQInstance::Instance()->AddWithUid(&a, KUidA));
    ASSERT_NE(0, CQInstance::Instance()->AddWithUid(&b, KUidB));
    CQInstance::Instance()->RemoveByUid(KUidA);
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(KUidA));
    EXPECT_EQ(&b, CQInstance::Instance()->GetByUid(KUidB));
    // Removing a missing uid is harmless.
    CQInstance::Instance()->RemoveByUid(KUidA);
    EXPECT_EQ(&b, CQInstance::Instance()->GetByUid(KUidB));
}

TEST(CQInstance, NegativeAndZeroUidsAreOrdinaryKeys)
{
    int a = 1;
    int b = 2;
    ASSERT_NE(0, CQInstance::Instance()->AddWithUid(&a, 0));
    ASSERT_NE(0, CQInstance::Instance()->AddWithUid(&b, -5));
    EXPECT_EQ(&a, CQInstance::Instance()->GetByUid(0));
    EXPECT_EQ(&b, CQInstance::Instance()->GetByUid(-5));
    CQInstance::Instance()->RemoveByUid(0);
    CQInstance::Instance()->RemoveByUid(-5);
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(0));
}
