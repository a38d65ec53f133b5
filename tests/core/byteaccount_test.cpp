// The byte account: its bound, the first charge an empty account always
// takes, and a parent charged and released together with its child.
#include "core/byteaccount.h"

#include <gtest/gtest.h>

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
