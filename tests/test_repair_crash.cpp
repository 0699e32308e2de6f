#include <gtest/gtest.h>

TEST(Placeholder, Placeholder) {}
