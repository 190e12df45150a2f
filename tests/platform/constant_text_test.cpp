#include "constant_text.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <string>

namespace {

using ptz::platform::is_constant_text;

char writable[] = "text";
char zero[5];

TEST(IsConstantText, ReturnsTrueForALiteralOfTheProgram) { EXPECT_TRUE(is_constant_text("text")); }

// A literal of a plug-in.
const char *text_in(const char *path) {
  void *object = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (object == nullptr) return nullptr;
  const auto key = reinterpret_cast<const char *(*)()>(dlsym(object, "plugin_key"));
  return key();
}

TEST(IsConstantText, ReturnsFalseForALiteralOfAnObjectThatMayBeUnloaded) {
  const char *text = text_in(PAN_PLUGIN);
  ASSERT_STREQ(text, "Pan");
  EXPECT_FALSE(is_constant_text(text));
}

TEST(IsConstantText, ReturnsTrueForALiteralOfAnObjectThatIsNeverUnloaded) {
  const char *text = text_in(PERMANENT_PLUGIN);
  ASSERT_STREQ(text, "Pan");
  EXPECT_TRUE(is_constant_text(text));
}

TEST(IsConstantText, ReturnsFalseForWritableMemory) {
  const char on_stack[] = {'t', 'e', 'x', 't', '\0'};
  const std::string on_heap(100, 'x');
  void *mapped = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  EXPECT_FALSE(is_constant_text(on_stack));
  EXPECT_FALSE(is_constant_text(on_heap.c_str()));
  EXPECT_FALSE(is_constant_text(static_cast<const char *>(mapped)));
  EXPECT_FALSE(is_constant_text(writable));
  EXPECT_FALSE(is_constant_text(zero));
  EXPECT_FALSE(is_constant_text(nullptr));
  munmap(mapped, 4096);
}

}  // namespace
