#include <gtest/gtest.h>
TEST(Getters, Placeholder) { EXPECT_TRUE(true); }
