// The byte account: its bound, the first charge an empty account always
// takes, and a parent charged and released together with its child.
#include "core/byteaccount.h"

#include <gtest/gtest.h>

#include <memory>

using UlmarComms::ByteAccount;

TEST(ByteAccount, RefusesPastItsBoundButAlwaysTakesAChargeWhenEmpty)
{
    ByteAccount account(100);
    EXPECT_TRUE(account.charge(250)) << "one item over the bound still moves";
    EXPECT_FALSE(account.charge(1));
    account.release(250);
    EXPECT_TRUE(account.charge(60));
    EXPECT_TRUE(account.charge(40)) << "reaching the bound exactly is allowed";
    EXPECT_FALSE(account.charge(1));
    EXPECT_EQ(account.used(), 100u);
    account.releaseAll();
    EXPECT_EQ(account.used(), 0u);
}

TEST(ByteAccount, AParentIsChargedWithItsChildrenAndARefusalChargesNeither)
{
    ByteAccount user(100);
    {
        ByteAccount first(80, &user);
        ByteAccount second(80, &user);
        ASSERT_TRUE(first.charge(70));
        EXPECT_FALSE(second.charge(40)) << "the user's bound is reached first";
        EXPECT_EQ(second.used(), 0u);
        EXPECT_EQ(user.used(), 70u);
        ASSERT_TRUE(second.charge(30));
        EXPECT_EQ(user.used(), 100u);
        first.release(20);
        EXPECT_EQ(user.used(), 80u);
        // second ends here holding 30, first holding 50: both go back.
    }
    EXPECT_EQ(user.used(), 0u);
}

TEST(ByteAccount, BoundsCanBeSkippedAndTheRefusingLevelIsNamed)
{
    auto service = std::make_shared<ByteAccount>(100, nullptr, "service");
    auto user = std::make_shared<ByteAccount>(1000, service, "user");
    ByteAccount link(10, user, "link");
    using Bounds = ByteAccount::Bounds;
    ASSERT_EQ(link.chargeOrRefuser(8, Bounds::All), nullptr);
    EXPECT_EQ(link.chargeOrRefuser(8, Bounds::All), &link);
    EXPECT_EQ(link.chargeOrRefuser(50, Bounds::ParentsOnly), nullptr) << "the link's own bound skipped";
    EXPECT_EQ(link.chargeOrRefuser(50, Bounds::ParentsOnly), service.get()) << "the service's bound still holds";
    EXPECT_STREQ(service->name(), "service");
    EXPECT_EQ(link.chargeOrRefuser(50, Bounds::None), nullptr) << "bytes held already are always taken";
    EXPECT_EQ(link.used(), 108u);
    EXPECT_EQ(service->used(), 108u);
    // The link keeps its parents alive: they are given back to on its end.
    std::weak_ptr<ByteAccount> kept = service;
    service.reset();
    user.reset();
    EXPECT_FALSE(kept.expired());
    link.releaseAll();
    EXPECT_EQ(kept.lock()->used(), 0u);
}
