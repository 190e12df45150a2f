// The shared library in a program that is not linked with it.
#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

TEST(PlatformLibrary, StaysLoadedAfterItsLastDlclose) {
  void *library = dlopen(PLATFORM_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  ASSERT_EQ(dlclose(library), 0);
  EXPECT_NE(dlopen(PLATFORM_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
}

}  // namespace
