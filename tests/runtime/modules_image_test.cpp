// Dynamic loading for tools: __KyRtLoadImage binds every reference at load,
// __KyRtGetSymbol reports only its own lookup's failure and leaves the
// loader alone for a null handle.
#include <dlfcn.h>

#include <cmath>
#include <string>

#include "gtest/gtest.h"
#include "kyrt/modules.h"

namespace {

constexpr const char* kMathLibrary = "libm.so.6";
constexpr const char* kMissingImage = "libkyrt-test-no-such-image.so";

using CosineFunction = double (*)(double);

// Leaves a loader error pending, as a failed dlopen does.
void LeaveALoaderErrorPending() {
  ASSERT_EQ(dlopen(kMissingImage, RTLD_NOW), nullptr);
}

class ImageLoadingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    math_ = __KyRtLoadImage(kMathLibrary);
    ASSERT_NE(math_, nullptr) << dlerror();
    dlerror();
  }
  void TearDown() override {
    if (math_ != nullptr) dlclose(math_);
  }

  void* math_ = nullptr;
};

TEST_F(ImageLoadingTest, FindsAFunctionOfALoadedImage) {
  void* cosine = __KyRtGetSymbol(math_, "cos");
  ASSERT_NE(cosine, nullptr);
  EXPECT_EQ(cosine, dlsym(math_, "cos"));
  const CosineFunction function = reinterpret_cast<CosineFunction>(cosine);
  EXPECT_EQ(function(0.0), 1.0);
  EXPECT_EQ(function(M_PI), -1.0);
}

TEST_F(ImageLoadingTest, AMissingSymbolGivesNullAndTheErrorIsConsumed) {
  EXPECT_EQ(__KyRtGetSymbol(math_, "kyrt_test_no_such_symbol"), nullptr);
  EXPECT_EQ(dlerror(), nullptr);
}

TEST_F(ImageLoadingTest, AnEarlierPendingErrorDoesNotSpoilALookup) {
  LeaveALoaderErrorPending();
  EXPECT_NE(__KyRtGetSymbol(math_, "cos"), nullptr);
  EXPECT_EQ(dlerror(), nullptr);
}

TEST_F(ImageLoadingTest, ANullHandleGivesNullWithoutTouchingTheLoader) {
  LeaveALoaderErrorPending();
  // "cos" is in the global scope: a lookup there would find it.
  EXPECT_EQ(__KyRtGetSymbol(nullptr, "cos"), nullptr);
  const char* pending = dlerror();
  ASSERT_NE(pending, nullptr);
  EXPECT_NE(std::string(pending).find(kMissingImage), std::string::npos) << pending;
}

TEST_F(ImageLoadingTest, LoadingTheSameImageAgainGivesTheSameHandle) {
  void* again = __KyRtLoadImage(kMathLibrary);
  EXPECT_EQ(again, math_);
  dlclose(again);
}

TEST(ImageLoading, AMissingImageGivesNull) {
  EXPECT_EQ(__KyRtLoadImage(kMissingImage), nullptr);
  const char* error = dlerror();
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::string(error).find(kMissingImage), std::string::npos) << error;
}

TEST(ImageLoading, EveryReferenceIsBoundAtLoad) {
  EXPECT_EQ(__KyRtLoadImage(KYRT_TEST_UNRESOLVED_IMAGE), nullptr);
  const char* error = dlerror();
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::string(error).find("kyrt_fixture_function_nobody_defines"), std::string::npos)
      << error;
  // The same image loads when references are bound lazily: only immediate
  // binding refuses it.
  void* lazily = dlopen(KYRT_TEST_UNRESOLVED_IMAGE, RTLD_LAZY);
  EXPECT_NE(lazily, nullptr) << dlerror();
  if (lazily != nullptr) dlclose(lazily);
}

TEST(ImageLoading, ANullPathGivesTheMainProgram) {
  void* program = __KyRtLoadImage(nullptr);
  ASSERT_NE(program, nullptr);
  void* reference = dlopen(nullptr, RTLD_NOW);
  EXPECT_EQ(program, reference);
  dlclose(reference);
  dlclose(program);
}

TEST(ImageLoading, TheImageOffsetFromThePreferredAddressIsZero) {
  EXPECT_EQ(__KyGetImageOffsetFromPreferredAddress(), 0u);
}

}  // namespace
