// The public header stands alone in C++, and C sees the same records.
#include "kavo_stream.h"

extern "C" int kavo_test_record_size_in_c(void);

#include <gtest/gtest.h>

TEST(PublicHeader, IsTheSameInCAndCpp) {
  EXPECT_EQ(kavo_test_record_size_in_c(), static_cast<int>(sizeof(kv_session_record)));
}
