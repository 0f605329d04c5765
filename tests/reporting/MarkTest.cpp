#include <gtest/gtest.h>

#include "reporting/Mark.h"

namespace {

using namespace orv::reporting;

// Programs in other languages compute the same.
TEST(Mark, SaysWhereARootIs) {
  EXPECT_EQ(markOf(hashOf("r"), {1, 1}), 17942013593802900437U);
  EXPECT_EQ(markOf(hashOf("r"), {7, 0}), 9844729739292460610U) << "before the first event";
}

}  // namespace
