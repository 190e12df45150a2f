// Keys in shared objects that are unloaded while the process goes on.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>

#include "shared_group.h"

namespace {

using namespace ptz_test;

struct Unload {
  void operator()(void *object) const { dlclose(object); }
};

struct Plugin {
  std::unique_ptr<void, Unload> object;
  const gchar *(*key)() = nullptr;
  gint (*set)(gint32) = nullptr;

  explicit Plugin(const char *path) : object(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (object == nullptr) return;
    key = reinterpret_cast<decltype(key)>(dlsym(object.get(), "plugin_key"));
    set = reinterpret_cast<decltype(set)>(dlsym(object.get(), "plugin_set"));
  }
};

using StatusStorePlugins = StoreTest;

TEST_F(StatusStorePlugins, SetAfterAnotherPluginTookTheAddressOfTheKeyWritesTheOtherKey) {
  ASSERT_GE(create("G"), 0);
  ASSERT_EQ(set("G", {item("Pan", 0), item("Til", 0)}), 0);
  const gchar *key = nullptr;
  {
    const Plugin pan(PAN_PLUGIN);
    ASSERT_NE(pan.object, nullptr) << dlerror();
    key = pan.key();
    for (gint32 value = 1; value <= 5; ++value) ASSERT_GE(pan.set(value), 0);
  }
  const Plugin tilt(TILT_PLUGIN);
  ASSERT_NE(tilt.object, nullptr) << dlerror();
  if (tilt.key() != key) GTEST_SKIP() << "the loader put the second plug-in at another address";
  ASSERT_GE(tilt.set(100), 0);
  EXPECT_EQ(number("G", "Pan"), 5);
  EXPECT_EQ(number("G", "Til"), 100);
}

}  // namespace
