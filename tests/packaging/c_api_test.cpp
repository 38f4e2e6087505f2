// Runs the C translation unit compiled from the public headers as strict C.
#include "gtest/gtest.h"

extern "C" int kyrt_c_api_smoke(void);

namespace {

TEST(CApi, EveryCallWorksFromC) {
  EXPECT_EQ(kyrt_c_api_smoke(), 1);
}

}  // namespace
