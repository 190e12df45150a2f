#include "ptz_parameter_item_array.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "failed_assertion.h"
#include "fixtures.h"
#include "handles.h"
#include "interpose.h"
#include "subclass.h"

using namespace ptz_test;

namespace {
std::atomic<const GMutex *> watched_mutex = nullptr;
std::atomic<std::size_t> times_locked = 0;
}  // namespace

INTERPOSE(void, g_mutex_lock, (GMutex * mutex)) {
  if (mutex == watched_mutex) ++times_locked;
  REAL(g_mutex_lock)(mutex);
}

namespace {

using Items = Object<PTZParameterItemArray>;

Items new_array(const char *name = "group") { return Items(ptz_parameter_item_array_new(name)); }

PTZParameterItem item(const char *name, const char *value = "", const char *range = nullptr) {
  PTZParameterItem made = {};
  made.name = const_cast<char *>(name);
  made.range = const_cast<char *>(range);
  std::strncpy(made.value, value, sizeof made.value);
  return made;
}

PTZParameterItem *append(const Items &array, const char *name, const char *value = "", const char *range = nullptr) {
  const PTZParameterItem source = item(name, value, range);
  return ptz_parameter_item_array_append(array.get(), &source);
}

Items array_of(std::initializer_list<const char *> names) {
  Items array = new_array();
  for (const char *name : names) append(array, name);
  return array;
}

// As a program sees them that reads the public list.
std::vector<std::string> names_in(const Items &array) {
  std::vector<std::string> names;
  for (const auto *node = array->items; node != nullptr; node = node->next) {
    names.emplace_back(node->item->name != nullptr ? node->item->name : "(null)");
  }
  EXPECT_EQ(array->count, names.size());
  return names;
}

using Names = std::vector<std::string>;

GMutex *the_lock() {
  auto *klass = static_cast<PTZParameterItemArrayClass *>(g_type_class_ref(PTZ_TYPE_PARAMETER_ITEM_ARRAY));
  g_type_class_unref(klass);
  return &klass->mutex;
}

std::size_t locks_taken_by(const std::function<void()> &operation) {
  watched_mutex = the_lock();
  times_locked = 0;
  operation();
  watched_mutex = nullptr;
  return times_locked;
}

gboolean collect_name(PTZParameterItem *visited, gpointer names) {
  static_cast<Names *>(names)->emplace_back(visited->name);
  return TRUE;
}

// A function for map and map_remove that is written in place.
using Visitor = std::function<gboolean(PTZParameterItem *)>;
gboolean visit(PTZParameterItem *visited, gpointer visitor) { return (*static_cast<Visitor *>(visitor))(visited); }
gboolean map(const Items &array, Visitor visitor) { return ptz_parameter_item_array_map(array.get(), visit, &visitor); }
gboolean map_remove(const Items &array, Visitor visitor) {
  return ptz_parameter_item_array_map_remove(array.get(), visit, &visitor);
}

const std::string longest_value(63, 'v');
const std::string too_long_value(64, 'v');

}  // namespace

// ---- the group and its name

TEST(ParameterItemArray, NewOneIsEmptyAndNamed) {
  const Items array = new_array("serial");
  EXPECT_STREQ(ptz_parameter_item_array_name(array.get()), "serial");
  EXPECT_EQ(ptz_parameter_item_array_items(array.get()), 0u);
  EXPECT_EQ(array->items, nullptr);
}

TEST(ParameterItemArray, NeedsNoName) { EXPECT_EQ(ptz_parameter_item_array_name(new_array(nullptr).get()), nullptr); }

TEST(ParameterItemArray, NameIsAProperty) {
  const Items array = new_array("serial");
  gchar *name = nullptr;
  g_object_get(array.get(), "name", &name, nullptr);
  EXPECT_STREQ(Text(name).get(), "serial");
  g_object_set(array.get(), "name", "limits", nullptr);
  EXPECT_STREQ(array->name, "limits");
  g_object_set(array.get(), "name", array->name, nullptr);
  EXPECT_STREQ(array->name, "limits");
  g_object_set(array.get(), "name", nullptr, nullptr);
  EXPECT_EQ(array->name, nullptr);
}

TEST(ParameterItemArray, NameMayBeSetToThePropertysOwnText) {
  const Items array = new_array("a name that is long enough for a block of its own");
  GValue own = G_VALUE_INIT;
  g_value_init(&own, G_TYPE_STRING);
  g_value_set_static_string(&own, array->name);
  g_object_set_property(G_OBJECT(array.get()), "name", &own);
  EXPECT_STREQ(array->name, "a name that is long enough for a block of its own");
  g_value_unset(&own);
}

TEST(ParameterItemArray, NamePropertyIsDescribed) {
  const Items array = new_array();
  GParamSpec *spec = g_object_class_find_property(G_OBJECT_GET_CLASS(array.get()), "name");
  ASSERT_TRUE(G_IS_PARAM_SPEC_STRING(spec));
  EXPECT_STREQ(g_param_spec_get_nick(spec), "Group name");
  EXPECT_STREQ(g_param_spec_get_blurb(spec), "PTZ framework parameter group name");
  EXPECT_EQ(G_PARAM_SPEC_STRING(spec)->default_value, nullptr);
  EXPECT_EQ(spec->flags, G_PARAM_READWRITE);
}

TEST(ParameterItemArray, UnknownPropertyOfASubclassIsAWarning) {
  static const GType type = subclass(PTZ_TYPE_PARAMETER_ITEM_ARRAY, "ArrayWithProperty", [](gpointer klass, gpointer) {
    auto *object_class = G_OBJECT_CLASS(klass);
    const auto *parent_class = G_OBJECT_CLASS(g_type_class_peek_parent(klass));
    object_class->set_property = parent_class->set_property;
    object_class->get_property = parent_class->get_property;
    g_object_class_install_property(object_class, 2, g_param_spec_int("extra", "", "", 0, 9, 0, G_PARAM_READWRITE));
  });
  const Object<GObject> array(G_OBJECT(g_object_new(type, nullptr)));
  const std::string rest = ": invalid property id 2 for \"extra\" of type 'GParamInt' in 'ArrayWithProperty'";
  const auto expect_warning = [&rest](const GlibLogCapture &log) {
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages()[0].level & G_LOG_LEVEL_MASK, G_LOG_LEVEL_WARNING);
    EXPECT_TRUE(log.messages()[0].text.starts_with("ptz_parameter_item_array:"));
    EXPECT_TRUE(log.messages()[0].text.ends_with(rest)) << log.messages()[0].text;
  };
  {
    const GlibLogCapture log;
    g_object_set(array.get(), "extra", 1, nullptr);
    expect_warning(log);
  }
  const GlibLogCapture log;
  gint extra = 0;
  g_object_get(array.get(), "extra", &extra, nullptr);
  expect_warning(log);
}

// ---- adding

TEST(ParameterItemArray, AppendCopiesDeeplyAtTheEnd) {
  const Items array = array_of({"first"});
  std::string name = "name", text = "text", info = "info", range = "range";
  PTZParameterItem source = {1, name.data(), text.data(), "value", info.data(), 2, range.data(), 3};
  const PTZParameterItem *stored = ptz_parameter_item_array_append(array.get(), &source);
  for (std::string *original : {&name, &text, &info, &range}) original->assign("other");
  std::strcpy(source.value, "other");
  EXPECT_EQ(stored, array->items->next->item);
  EXPECT_EQ(stored->code, 1u);
  EXPECT_STREQ(stored->name, "name");
  EXPECT_STREQ(stored->text, "text");
  EXPECT_STREQ(stored->value, "value");
  EXPECT_STREQ(stored->info, "info");
  EXPECT_EQ(stored->info_code, 2u);
  EXPECT_STREQ(stored->range, "range");
  EXPECT_EQ(stored->range_code, 3u);
  EXPECT_EQ(names_in(array), (Names{"first", "name"}));
}

TEST(ParameterItemArray, NullStringsStayNull) {
  const Items array = new_array();
  const PTZParameterItem source = {};
  const PTZParameterItem *stored = ptz_parameter_item_array_append(array.get(), &source);
  EXPECT_EQ(stored->name, nullptr);
  EXPECT_EQ(stored->text, nullptr);
  EXPECT_EQ(stored->info, nullptr);
  EXPECT_EQ(stored->range, nullptr);
  EXPECT_STREQ(stored->value, "");
}

TEST(ParameterItemArray, ValueWithoutAnEndIsCut) {
  const Items array = new_array();
  PTZParameterItem source = item("endless");
  std::memset(source.value, 'v', sizeof source.value);
  source.info = const_cast<char *>("follows the value");
  EXPECT_EQ(ptz_parameter_item_array_append(array.get(), &source)->value, longest_value);
  EXPECT_EQ(ptz_parameter_item_array_add(array.get(), &source)->value, longest_value);
}

TEST(ParameterItemArray, AppendTakesTheSameNameAgainAndTheFirstIsFound) {
  const Items array = new_array();
  const PTZParameterItem *first = append(array, "a");
  append(array, "b");
  EXPECT_NE(append(array, "a"), first);
  EXPECT_EQ(names_in(array), (Names{"a", "b", "a"}));
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "a"), first);
}

TEST(ParameterItemArray, AddAppendsANewName) {
  const Items array = new_array();
  for (const char *name : {"a", "b"}) {
    const PTZParameterItem source = item(name);
    EXPECT_STREQ(ptz_parameter_item_array_add(array.get(), &source)->name, name);
  }
  EXPECT_EQ(names_in(array), (Names{"a", "b"}));
}

TEST(ParameterItemArray, AddReplacesAllButNameAndPlace) {
  const Items array = array_of({"a", "b", "c"});
  PTZParameterItem *const old = ptz_parameter_item_array_get(array.get(), 1);
  const char *const old_name = old->name;
  char text[] = "text", info[] = "info", range[] = "range", name[] = "b";
  const PTZParameterItem source = {1, name, text, "value", info, 2, range, 3};
  EXPECT_EQ(ptz_parameter_item_array_add(array.get(), &source), old);
  EXPECT_EQ(old->name, old_name);
  EXPECT_EQ(old->code, 1u);
  EXPECT_STREQ(old->text, "text");
  EXPECT_STREQ(old->value, "value");
  EXPECT_STREQ(old->info, "info");
  EXPECT_EQ(old->info_code, 2u);
  EXPECT_STREQ(old->range, "range");
  EXPECT_EQ(old->range_code, 3u);
  EXPECT_EQ(names_in(array), (Names{"a", "b", "c"}));

  const PTZParameterItem bare = item("b");
  ptz_parameter_item_array_add(array.get(), &bare);
  EXPECT_EQ(old->text, nullptr);
  EXPECT_EQ(old->info, nullptr);
  EXPECT_EQ(old->range, nullptr);
  EXPECT_STREQ(old->value, "");
}

TEST(ParameterItemArray, AddReplacesTheFirstOfSeveral) {
  const Items array = array_of({"a", "a"});
  const PTZParameterItem source = item("a", "new");
  EXPECT_EQ(ptz_parameter_item_array_add(array.get(), &source), ptz_parameter_item_array_get(array.get(), 0));
  EXPECT_STREQ(ptz_parameter_item_array_get(array.get(), 1)->value, "");
}

TEST(ParameterItemArray, AnItemWithoutNameIsFoundByNoName) {
  const Items array = array_of({"a"});
  const PTZParameterItem *nameless = append(array, nullptr);
  append(array, nullptr);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), nullptr), nameless);
  const PTZParameterItem source = item(nullptr, "new");
  EXPECT_EQ(ptz_parameter_item_array_add(array.get(), &source), nameless);
  ptz_parameter_item_array_remove_by_name(array.get(), nullptr);
  EXPECT_EQ(names_in(array), (Names{"a", "(null)"}));
  ptz_parameter_item_array_remove_by_name(array.get(), nullptr);
  ptz_parameter_item_array_remove_by_name(array.get(), nullptr);
  EXPECT_EQ(names_in(array), (Names{"a"}));
}

// ---- looking up

TEST(ParameterItemArray, GetTakesAnIndexAndIsQuietBeyondTheEnd) {
  const GlibLogCapture log;
  const Items array = array_of({"a", "b"});
  EXPECT_STREQ(ptz_parameter_item_array_get(array.get(), 0)->name, "a");
  EXPECT_STREQ(ptz_parameter_item_array_get(array.get(), 1)->name, "b");
  EXPECT_EQ(ptz_parameter_item_array_get(array.get(), 2), nullptr);
  EXPECT_EQ(ptz_parameter_item_array_get(array.get(), 3), nullptr);
  EXPECT_EQ(ptz_parameter_item_array_get(array.get(), G_MAXUINT32), nullptr);
  EXPECT_EQ(ptz_parameter_item_array_get(new_array().get(), 0), nullptr);
  EXPECT_TRUE(log.messages().empty());
}

TEST(ParameterItemArray, GetByNameIsQuietWhereThereIsNone) {
  const GlibLogCapture log;
  const Items array = array_of({"a", "b"});
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "b"), ptz_parameter_item_array_get(array.get(), 1));
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "B"), nullptr);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), nullptr), nullptr);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(new_array().get(), "a"), nullptr);
  EXPECT_TRUE(log.messages().empty());
}

// ---- the setters and what tells them apart

class ParameterItemSetters : public testing::Test {
 protected:
  const Items array = new_array();
  PTZParameterItem *const stored = [this] {
    char text[] = "text", info[] = "info", range[] = "range", name[] = "a";
    const PTZParameterItem source = {1, name, text, "value", info, 2, range, 3};
    return ptz_parameter_item_array_append(array.get(), &source);
  }();
};

TEST_F(ParameterItemSetters, SetReplacesAllThatItIsGiven) {
  EXPECT_EQ(ptz_parameter_item_array_set(array.get(), 0, "new", "news", 12, "wide", 13), stored);
  EXPECT_EQ(stored->code, 1u);
  EXPECT_STREQ(stored->name, "a");
  EXPECT_STREQ(stored->text, "text");
  EXPECT_STREQ(stored->value, "new");
  EXPECT_STREQ(stored->info, "news");
  EXPECT_EQ(stored->info_code, 12u);
  EXPECT_STREQ(stored->range, "wide");
  EXPECT_EQ(stored->range_code, 13u);
}

TEST_F(ParameterItemSetters, SetKeepsInfoForNullButNotRange) {
  ptz_parameter_item_array_set(array.get(), 0, "new", nullptr, 12, nullptr, 13);
  EXPECT_STREQ(stored->info, "info");
  EXPECT_EQ(stored->info_code, 12u);
  EXPECT_EQ(stored->range, nullptr);
  EXPECT_EQ(stored->range_code, 13u);
}

TEST_F(ParameterItemSetters, SetByNameReplacesAllThatItIsGiven) {
  EXPECT_EQ(ptz_parameter_item_array_set_by_name(array.get(), "a", "new", "news", 12, "wide", 13), stored);
  EXPECT_STREQ(stored->text, "text");
  EXPECT_STREQ(stored->value, "new");
  EXPECT_STREQ(stored->info, "news");
  EXPECT_EQ(stored->info_code, 12u);
  EXPECT_STREQ(stored->range, "wide");
  EXPECT_EQ(stored->range_code, 13u);
}

TEST_F(ParameterItemSetters, SetByNameKeepsInfoAndRangeForNull) {
  ptz_parameter_item_array_set_by_name(array.get(), "a", "new", nullptr, 12, nullptr, 13);
  EXPECT_STREQ(stored->value, "new");
  EXPECT_STREQ(stored->info, "info");
  EXPECT_EQ(stored->info_code, 12u);
  EXPECT_STREQ(stored->range, "range");
  EXPECT_EQ(stored->range_code, 13u);
}

TEST_F(ParameterItemSetters, SetRangeChangesOnlyTheText) {
  EXPECT_EQ(ptz_parameter_item_array_set_range(array.get(), 0, "wide"), stored);
  EXPECT_STREQ(stored->range, "wide");
  EXPECT_EQ(ptz_parameter_item_array_set_range(array.get(), 0, nullptr), stored);
  EXPECT_EQ(stored->range, nullptr);
  EXPECT_EQ(ptz_parameter_item_array_set_range_by_name(array.get(), "a", "wider"), stored);
  EXPECT_STREQ(stored->range, "wider");
  EXPECT_EQ(ptz_parameter_item_array_set_range_by_name(array.get(), "a", nullptr), stored);
  EXPECT_EQ(stored->range, nullptr);
  EXPECT_STREQ(stored->value, "value");
  EXPECT_STREQ(stored->info, "info");
  EXPECT_EQ(stored->range_code, 3u);
}

TEST_F(ParameterItemSetters, SetValueByNameChangesOnlyTheValueAndCutsIt) {
  EXPECT_EQ(ptz_parameter_item_array_set_value_by_name(array.get(), "a", "new"), stored);
  EXPECT_STREQ(stored->value, "new");
  ptz_parameter_item_array_set_value_by_name(array.get(), "a", std::string(100, 'v').c_str());
  EXPECT_EQ(stored->value, longest_value);
  EXPECT_STREQ(stored->range, "range");
  EXPECT_STREQ(stored->info, "info");
}

TEST_F(ParameterItemSetters, LongestValueIsStoredWhole) {
  ptz_parameter_item_array_set(array.get(), 0, longest_value.c_str(), nullptr, 0, nullptr, 0);
  EXPECT_EQ(stored->value, longest_value);
  ptz_parameter_item_array_set(array.get(), 0, "", nullptr, 0, nullptr, 0);
  ptz_parameter_item_array_set_by_name(array.get(), "a", longest_value.c_str(), nullptr, 0, nullptr, 0);
  EXPECT_EQ(stored->value, longest_value);
}

TEST_F(ParameterItemSetters, IndexAtTheEndIsACriticalAndOneBeyondItIsNot) {
  const GlibLogCapture log;
  EXPECT_EQ(ptz_parameter_item_array_set(array.get(), 2, "new", nullptr, 0, nullptr, 0), nullptr);
  EXPECT_EQ(ptz_parameter_item_array_set_range(array.get(), 2, "wide"), nullptr);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(ptz_parameter_item_array_set(array.get(), 1, "new", nullptr, 0, nullptr, 0), nullptr);
  EXPECT_EQ(log.failed_check("ptz_parameter_item_array_set", "item != NULL"), 1u);
  EXPECT_EQ(ptz_parameter_item_array_set_range(array.get(), 1, "wide"), nullptr);
  EXPECT_EQ(log.failed_check("ptz_parameter_item_array_set_range", "item != NULL"), 1u);
  EXPECT_EQ(log.messages().size(), 2u);
  EXPECT_STREQ(stored->value, "value");
  EXPECT_STREQ(stored->range, "range");
}

TEST_F(ParameterItemSetters, NameThatIsNotThereIsACritical) {
  const Items empty = new_array();
  for (const Items *tested : {&array, &empty}) {
    const GlibLogCapture log;
    PTZParameterItemArray *self = tested->get();
    EXPECT_EQ(ptz_parameter_item_array_set_by_name(self, "b", "new", nullptr, 0, nullptr, 0), nullptr);
    EXPECT_EQ(log.failed_check("ptz_parameter_item_array_set_by_name", "item != NULL"), 1u);
    EXPECT_EQ(ptz_parameter_item_array_set_range_by_name(self, "b", "wide"), nullptr);
    EXPECT_EQ(log.failed_check("ptz_parameter_item_array_set_range_by_name", "item != NULL"), 1u);
    EXPECT_EQ(ptz_parameter_item_array_set_value_by_name(self, "b", "new"), nullptr);
    EXPECT_EQ(log.failed_check("ptz_parameter_item_array_set_value_by_name", "item != NULL"), 1u);
    EXPECT_EQ(log.messages().size(), 3u);
  }
}

TEST_F(ParameterItemSetters, NullValueIsACritical) {
  const GlibLogCapture log;
  EXPECT_EQ(ptz_parameter_item_array_set(array.get(), 0, nullptr, nullptr, 0, nullptr, 0), nullptr);
  EXPECT_EQ(log.failed_check("ptz_parameter_item_array_set", "value != NULL"), 1u);
  EXPECT_EQ(ptz_parameter_item_array_set(array.get(), 9, nullptr, nullptr, 0, nullptr, 0), nullptr);
  EXPECT_EQ(log.failed_check("ptz_parameter_item_array_set", "value != NULL"), 2u);
  EXPECT_EQ(ptz_parameter_item_array_set_by_name(array.get(), "a", nullptr, nullptr, 0, nullptr, 0), nullptr);
  EXPECT_EQ(log.failed_check("ptz_parameter_item_array_set_by_name", "value != NULL"), 1u);
  EXPECT_EQ(ptz_parameter_item_array_set_value_by_name(array.get(), "a", nullptr), nullptr);
  EXPECT_EQ(log.failed_check("ptz_parameter_item_array_set_value_by_name", "value != NULL"), 1u);
  EXPECT_EQ(log.messages().size(), 4u);
  EXPECT_STREQ(stored->value, "value");
}

using ParameterItemSettersDeathTest = ParameterItemSetters;

TEST_F(ParameterItemSettersDeathTest, ValueThatIsTooLongAborts) {
  constexpr char expression[] = "strlen(value) < PAR_VAL_MAX_LEN";
  const char *value = too_long_value.c_str();
  EXPECT_EXIT(ptz_parameter_item_array_set(array.get(), 0, value, nullptr, 0, nullptr, 0),
              testing::KilledBySignal(SIGABRT),
              failed_c_assertion("ptz_parameter_item_array", "ptz_parameter_item_array_set", expression));
  // Also where there is no such item.
  EXPECT_EXIT(ptz_parameter_item_array_set(array.get(), 9, value, nullptr, 0, nullptr, 0),
              testing::KilledBySignal(SIGABRT),
              failed_c_assertion("ptz_parameter_item_array", "ptz_parameter_item_array_set", expression));
  EXPECT_EXIT(ptz_parameter_item_array_set_by_name(array.get(), "a", value, nullptr, 0, nullptr, 0),
              testing::KilledBySignal(SIGABRT),
              failed_c_assertion("ptz_parameter_item_array", "ptz_parameter_item_array_set_by_name", expression));
}

// ---- an array given its own strings and items

TEST_F(ParameterItemSetters, TakeTheItemsOwnStrings) {
  for (int times = 0; times < 2; ++times) {
    ptz_parameter_item_array_set(array.get(), 0, stored->value, stored->info, 2, stored->range, 3);
    ptz_parameter_item_array_set_by_name(array.get(), stored->name, stored->value, stored->info, 2, stored->range, 3);
    ptz_parameter_item_array_set_range(array.get(), 0, stored->range);
    ptz_parameter_item_array_set_range_by_name(array.get(), stored->name, stored->range);
    ptz_parameter_item_array_set_value_by_name(array.get(), stored->name, stored->value);
  }
  EXPECT_STREQ(stored->value, "value");
  EXPECT_STREQ(stored->info, "info");
  EXPECT_STREQ(stored->range, "range");
}

TEST_F(ParameterItemSetters, TakeTheItemsOwnStringsInOtherPlaces) {
  ptz_parameter_item_array_set(array.get(), 0, stored->range, stored->value, 2, stored->info, 3);
  EXPECT_STREQ(stored->value, "range");
  EXPECT_STREQ(stored->info, "value");
  EXPECT_STREQ(stored->range, "info");
  ptz_parameter_item_array_set_by_name(array.get(), "a", stored->info, stored->range, 2, stored->value, 3);
  EXPECT_STREQ(stored->value, "value");
  EXPECT_STREQ(stored->info, "info");
  EXPECT_STREQ(stored->range, "range");
}

TEST_F(ParameterItemSetters, TakePartOfTheItemsOwnValue) {
  ptz_parameter_item_array_set(array.get(), 0, stored->value + 2, nullptr, 0, stored->range + 2, 0);
  EXPECT_STREQ(stored->value, "lue");
  EXPECT_STREQ(stored->range, "nge");
  ptz_parameter_item_array_set_value_by_name(array.get(), "a", stored->value + 1);
  EXPECT_STREQ(stored->value, "ue");
  ptz_parameter_item_array_set_value_by_name(array.get(), "a", stored->value + 2);
  EXPECT_STREQ(stored->value, "");
}

TEST_F(ParameterItemSetters, AddOfAStoredItemChangesNothing) {
  EXPECT_EQ(ptz_parameter_item_array_add(array.get(), stored), stored);
  EXPECT_STREQ(stored->text, "text");
  EXPECT_STREQ(stored->value, "value");
  EXPECT_STREQ(stored->info, "info");
  EXPECT_STREQ(stored->range, "range");
  EXPECT_EQ(names_in(array), (Names{"a"}));
}

TEST_F(ParameterItemSetters, AddTakesStringsOfTheItemInOtherPlaces) {
  PTZParameterItem source = *stored;
  source.text = stored->info;
  source.info = stored->range;
  source.range = stored->text;
  ptz_parameter_item_array_add(array.get(), &source);
  EXPECT_STREQ(stored->text, "info");
  EXPECT_STREQ(stored->info, "range");
  EXPECT_STREQ(stored->range, "text");
}

TEST_F(ParameterItemSetters, AppendOfAStoredItemIsAnotherOfThatName) {
  const PTZParameterItem *appended = ptz_parameter_item_array_append(array.get(), stored);
  EXPECT_NE(appended, stored);
  EXPECT_NE(appended->info, stored->info);
  EXPECT_STREQ(appended->info, "info");
  EXPECT_EQ(names_in(array), (Names{"a", "a"}));
}

TEST_F(ParameterItemSetters, RemoveByTheItemsOwnName) {
  ptz_parameter_item_array_remove_by_name(array.get(), stored->name);
  EXPECT_EQ(names_in(array), Names{});
}

// ---- removing

TEST(ParameterItemArray, RemoveTakesAnIndexAndIsQuietBeyondTheEnd) {
  const GlibLogCapture log;
  const Items array = array_of({"a", "b", "c", "d"});
  PTZParameterItemArray *self = array.get();
  EXPECT_EQ(ptz_parameter_item_array_remove(self, 5), self);
  EXPECT_EQ(ptz_parameter_item_array_remove(self, 4), self);
  EXPECT_EQ(names_in(array), (Names{"a", "b", "c", "d"}));
  EXPECT_EQ(ptz_parameter_item_array_remove(self, 1), self);
  EXPECT_EQ(names_in(array), (Names{"a", "c", "d"}));
  EXPECT_EQ(ptz_parameter_item_array_remove(self, 0), self);
  EXPECT_EQ(names_in(array), (Names{"c", "d"}));
  EXPECT_EQ(ptz_parameter_item_array_remove(self, 1), self);
  EXPECT_EQ(names_in(array), (Names{"c"}));
  EXPECT_EQ(ptz_parameter_item_array_remove(self, 0), self);
  EXPECT_EQ(names_in(array), Names{});
  EXPECT_EQ(array->items, nullptr);
  EXPECT_EQ(ptz_parameter_item_array_remove(self, 0), self);
  EXPECT_TRUE(log.messages().empty());
}

TEST(ParameterItemArray, RemovedItemsAreFoundNoMore) {
  const Items array = array_of({"a", "b", "c"});
  ptz_parameter_item_array_remove(array.get(), 2);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "c"), nullptr);
  EXPECT_EQ(ptz_parameter_item_array_get(array.get(), 2), nullptr);
  append(array, "d");
  EXPECT_EQ(names_in(array), (Names{"a", "b", "d"}));
  EXPECT_STREQ(ptz_parameter_item_array_get(array.get(), 2)->name, "d");
}

TEST(ParameterItemArray, RemoveByNameTakesTheFirstOfThatName) {
  const GlibLogCapture log;
  const Items array = array_of({"a", "b", "a", "c"});
  PTZParameterItemArray *self = array.get();
  PTZParameterItem *const second = ptz_parameter_item_array_get(self, 2);
  EXPECT_EQ(ptz_parameter_item_array_remove_by_name(self, "x"), self);
  EXPECT_EQ(ptz_parameter_item_array_remove_by_name(self, "a"), self);
  EXPECT_EQ(names_in(array), (Names{"b", "a", "c"}));
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(self, "a"), second);
  EXPECT_EQ(ptz_parameter_item_array_remove_by_name(self, "a"), self);
  EXPECT_EQ(names_in(array), (Names{"b", "c"}));
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(self, "a"), nullptr);
  EXPECT_EQ(ptz_parameter_item_array_remove_by_name(new_array().get(), "a")->count, 0u);
  EXPECT_TRUE(log.messages().empty());
}

TEST(ParameterItemArray, RemovingALaterOneOfANameLeavesTheFirst) {
  const Items array = array_of({"a", "b", "a", "a"});
  PTZParameterItem *const first = ptz_parameter_item_array_get(array.get(), 0);
  ptz_parameter_item_array_remove(array.get(), 2);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "a"), first);
  ptz_parameter_item_array_remove(array.get(), 0);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "a"), ptz_parameter_item_array_get(array.get(), 1));
  EXPECT_EQ(names_in(array), (Names{"b", "a"}));
}

TEST(ParameterItemArray, FreeEmptiesAndTheArrayStaysOfUse) {
  const Items array = array_of({"a", "b"});
  ptz_parameter_item_array_free(array.get());
  EXPECT_EQ(names_in(array), Names{});
  EXPECT_STREQ(array->name, "group");
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "a"), nullptr);
  ptz_parameter_item_array_free(array.get());
  append(array, "a");
  EXPECT_EQ(names_in(array), (Names{"a"}));
  EXPECT_STREQ(ptz_parameter_item_array_get_by_name(array.get(), "a")->name, "a");
}

// ---- names that the caller changed

void rename(PTZParameterItem *stored, const char *name) {
  g_free(stored->name);
  stored->name = g_strdup(name);
}

TEST(ParameterItemArray, RemoveByIndexAfterCallerRenamedItemKeepsIndexValid) {
  const Items array = array_of({"a", "b", "c"});
  rename(ptz_parameter_item_array_get(array.get(), 1), "renamed");
  ptz_parameter_item_array_remove(array.get(), 1);
  EXPECT_EQ(names_in(array), (Names{"a", "c"}));
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "b"), nullptr);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "renamed"), nullptr);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "c"), ptz_parameter_item_array_get(array.get(), 1));
}

TEST(ParameterItemArray, RemoveByIndexAfterCallerRenamedFirstOfTwoKeepsTheSecondFindable) {
  const Items array = array_of({"a", "b", "a"});
  PTZParameterItem *const second = ptz_parameter_item_array_get(array.get(), 2);
  rename(ptz_parameter_item_array_get(array.get(), 0), "renamed");
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "a"), second);
  ptz_parameter_item_array_remove(array.get(), 0);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "a"), second);
  ptz_parameter_item_array_remove_by_name(array.get(), "a");
  EXPECT_EQ(names_in(array), (Names{"b"}));
}

TEST(ParameterItemArray, RemoveByIndexAfterCallerRenamedSecondOfTwoKeepsTheFirstRemovable) {
  const Items array = array_of({"a", "a", "b"});
  rename(ptz_parameter_item_array_get(array.get(), 1), "renamed");
  ptz_parameter_item_array_remove(array.get(), 0);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "a"), nullptr);
  ptz_parameter_item_array_remove(array.get(), 0);
  EXPECT_EQ(names_in(array), (Names{"b"}));
}

TEST(ParameterItemArray, GetByNameAfterCallerRenamedItemFindsItByTheNewNameOnly) {
  const Items array = array_of({"a", "b", "c"});
  PTZParameterItem *const renamed = ptz_parameter_item_array_get(array.get(), 1);
  rename(renamed, "renamed");
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "renamed"), renamed);
  EXPECT_EQ(ptz_parameter_item_array_set_value_by_name(array.get(), "renamed", "new"), renamed);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "b"), nullptr);
  rename(renamed, nullptr);
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), nullptr), renamed);
}

TEST(ParameterItemArray, AddAfterCallerChangedNameInPlaceReplacesTheItemOfTheNewName) {
  const Items array = array_of({"a", "b"});
  PTZParameterItem *const renamed = ptz_parameter_item_array_get(array.get(), 1);
  renamed->name[0] = 'x';
  const PTZParameterItem source = item("x", "new"), of_old_name = item("b");
  EXPECT_EQ(ptz_parameter_item_array_add(array.get(), &source), renamed);
  EXPECT_STREQ(renamed->value, "new");
  ptz_parameter_item_array_add(array.get(), &of_old_name);
  EXPECT_EQ(names_in(array), (Names{"a", "x", "b"}));
}

TEST(ParameterItemArray, RemoveByNameAfterCallerRenamedItemRemovesItByTheNewName) {
  const Items array = array_of({"a", "b", "c"});
  rename(ptz_parameter_item_array_get(array.get(), 1), "renamed");
  ptz_parameter_item_array_remove_by_name(array.get(), "b");
  EXPECT_EQ(names_in(array), (Names{"a", "renamed", "c"}));
  ptz_parameter_item_array_remove_by_name(array.get(), "renamed");
  EXPECT_EQ(names_in(array), (Names{"a", "c"}));
}

TEST(ParameterItemArray, MapRemoveOfItemsThatTheFunctionRenamedRemovesThem) {
  const Items array = array_of({"a", "b", "c"});
  map_remove(array, [](PTZParameterItem *stored) {
    rename(stored, "renamed");
    return TRUE;
  });
  EXPECT_EQ(names_in(array), Names{});
  append(array, "a");
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "a"), ptz_parameter_item_array_get(array.get(), 0));
}

TEST(ParameterItemArray, NamesWithTheSameHashAreToldApart) {
  ASSERT_EQ(g_str_hash("bA"), g_str_hash("c "));
  const Items array = array_of({"bA", "c ", "bA"});
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "c "), ptz_parameter_item_array_get(array.get(), 1));
  ptz_parameter_item_array_remove_by_name(array.get(), "bA");
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "bA"), ptz_parameter_item_array_get(array.get(), 1));
  EXPECT_EQ(names_in(array), (Names{"c ", "bA"}));
}

// ---- copying and walking

TEST(ParameterItemArray, CopyHasTheNameAndItsOwnItems) {
  const Items array = array_of({"a", "b", "a"});
  ptz_parameter_item_array_set(array.get(), 1, "value", "info", 1, "range", 2);
  const Items copy(ptz_parameter_item_array_copy(array.get()));
  EXPECT_STREQ(copy->name, "group");
  EXPECT_NE(copy->name, array->name);
  EXPECT_EQ(names_in(copy), (Names{"a", "b", "a"}));
  const PTZParameterItem *copied = ptz_parameter_item_array_get(copy.get(), 1);
  EXPECT_NE(copied, ptz_parameter_item_array_get(array.get(), 1));
  EXPECT_STREQ(copied->value, "value");
  EXPECT_STREQ(copied->info, "info");
  EXPECT_STREQ(copied->range, "range");
  ptz_parameter_item_array_free(array.get());
  EXPECT_EQ(names_in(copy), (Names{"a", "b", "a"}));
}

TEST(ParameterItemArray, CopyOfAnEmptyOneIsEmpty) {
  const Items array = new_array(nullptr);
  const Items copy(ptz_parameter_item_array_copy(array.get()));
  EXPECT_EQ(copy->name, nullptr);
  EXPECT_EQ(names_in(copy), Names{});
}

TEST(ParameterItemArray, MapVisitsInOrderUntilFalse) {
  const Items array = array_of({"a", "b", "c"});
  Names visited;
  EXPECT_EQ(ptz_parameter_item_array_map(array.get(), collect_name, &visited), 1);
  EXPECT_EQ(visited, (Names{"a", "b", "c"}));
  visited.clear();
  EXPECT_EQ(map(array,
                [&visited](PTZParameterItem *stored) {
                  visited.emplace_back(stored->name);
                  return visited.size() < 2;
                }),
            0);
  EXPECT_EQ(visited, (Names{"a", "b"}));
}

TEST(ParameterItemArray, MapOfAnEmptyOneIsTrueWithoutACall) {
  Names visited;
  const Items array = new_array();
  EXPECT_EQ(ptz_parameter_item_array_map(array.get(), collect_name, &visited), 1);
  EXPECT_EQ(ptz_parameter_item_array_map_remove(array.get(), collect_name, &visited), 1);
  EXPECT_EQ(visited, Names{});
}

TEST(ParameterItemArray, MapOfEmptyArrayWithNullFunctionReturnsTrueWithoutCritical) {
  const GlibLogCapture log;
  EXPECT_EQ(ptz_parameter_item_array_map(new_array().get(), nullptr, nullptr), 1);
  EXPECT_TRUE(log.messages().empty());
}

TEST(ParameterItemArray, MapRemoveTakesWhatTheFunctionSays) {
  const Items array = array_of({"x", "x", "a", "x", "b", "x"});
  EXPECT_EQ(map_remove(array, [](PTZParameterItem *stored) { return stored->name[0] == 'x' ? TRUE : FALSE; }), 1);
  EXPECT_EQ(names_in(array), (Names{"a", "b"}));
  EXPECT_EQ(ptz_parameter_item_array_get_by_name(array.get(), "x"), nullptr);
  EXPECT_EQ(map_remove(array, [](PTZParameterItem *) { return FALSE; }), 1);
  EXPECT_EQ(names_in(array), (Names{"a", "b"}));
  EXPECT_EQ(map_remove(array, [](PTZParameterItem *) { return TRUE; }), 1);
  EXPECT_EQ(names_in(array), Names{});
  EXPECT_EQ(array->items, nullptr);
}

TEST(ParameterItemArray, FunctionMayRemoveWhatItIsGiven) {
  const Items array = array_of({"a", "b", "c", "d"});
  Names visited;
  map(array, [&](PTZParameterItem *stored) {
    visited.emplace_back(stored->name);
    if (visited.back() != "c") ptz_parameter_item_array_remove_by_name(array.get(), stored->name);
    return TRUE;
  });
  EXPECT_EQ(visited, (Names{"a", "b", "c", "d"}));
  EXPECT_EQ(names_in(array), (Names{"c"}));
}

TEST(ParameterItemArray, FunctionMayRemoveOthers) {
  const Items array = array_of({"a", "b", "c", "d", "e"});
  Names visited;
  map(array, [&](PTZParameterItem *stored) {
    visited.emplace_back(stored->name);
    if (visited.back() == "b") ptz_parameter_item_array_remove_by_name(array.get(), "a");  // the one before
    if (visited.back() == "c") ptz_parameter_item_array_remove_by_name(array.get(), "d");  // the one behind
    return TRUE;
  });
  EXPECT_EQ(visited, (Names{"a", "b", "c", "e"}));
  visited.clear();
  map(array, [&](PTZParameterItem *stored) {
    visited.emplace_back(stored->name);
    ptz_parameter_item_array_free(array.get());
    return TRUE;
  });
  EXPECT_EQ(visited, (Names{"b"}));
}

TEST(ParameterItemArray, FunctionOfMapRemoveMayRemoveItself) {
  const Items array = array_of({"a", "b", "c", "d", "e"});
  Names visited;
  map_remove(array, [&](PTZParameterItem *stored) {
    visited.emplace_back(stored->name);
    if (visited.back() == "a") ptz_parameter_item_array_remove_by_name(array.get(), "a");  // and asks for it, too
    if (visited.back() == "c") ptz_parameter_item_array_remove_by_name(array.get(), "b");  // kept until now
    return visited.back() != "b" && visited.back() != "e";
  });
  EXPECT_EQ(visited, (Names{"a", "b", "c", "d", "e"}));
  EXPECT_EQ(names_in(array), (Names{"e"}));
}

TEST(ParameterItemArray, FunctionMayAppend) {
  const Items array = array_of({"a"});
  Names visited;
  map(array, [&](PTZParameterItem *stored) {
    visited.emplace_back(stored->name);
    if (visited.size() < 300) append(array, "b");
    return TRUE;
  });
  EXPECT_EQ(visited.size(), 300u);
  EXPECT_EQ(array->count, 300u);
}

// What was freed last is what the next allocation gets, but for a few blocks that the C library keeps back.
void let_addresses_come_back() {
  gpointer blocks[16];
  for (auto &block : blocks) block = g_malloc(sizeof(PTZParameterItemNode) + 2 * sizeof(guint64));
  for (gpointer block : blocks) g_free(block);
}

// Names too long for the blocks that nodes are in.
const std::string old_name(60, 'o'), new_name(60, 'n');

// The array that the walk is over, which replaces the old items one by one.
struct ReplacingWalk {
  Items array = array_of({old_name.c_str(), "a", old_name.c_str(), "b", old_name.c_str()});
  Names visited;

  bool replace(PTZParameterItem *stored) {
    visited.emplace_back(stored->name);
    if (visited.back() != old_name) return false;
    let_addresses_come_back();
    ptz_parameter_item_array_remove_by_name(array.get(), old_name.c_str());
    append(array, new_name.c_str());
    return true;
  }
  void expect_all_visited() const {
    EXPECT_EQ(visited, (Names{old_name, "a", old_name, "b", old_name, new_name, new_name, new_name}));
    EXPECT_EQ(names_in(array), (Names{"a", "b", new_name, new_name, new_name}));
  }
};

TEST(ParameterItemArray, FunctionMayReplaceWhatItIsGiven) {
  ReplacingWalk walk;
  map(walk.array, [&](PTZParameterItem *stored) { return walk.replace(stored), TRUE; });
  walk.expect_all_visited();
}

TEST(ParameterItemArray, FunctionOfMapRemoveMayReplaceWhatItIsGiven) {
  ReplacingWalk walk;
  map_remove(walk.array, [&](PTZParameterItem *stored) { return walk.replace(stored) ? TRUE : FALSE; });
  walk.expect_all_visited();
}

// ---- argument checks

struct NullCheck {
  const char *function;
  std::function<bool()> returns_nothing;  // called with no array
  const char *expression = "self != NULL";
};

class NullArray : public testing::TestWithParam<NullCheck> {};

const PTZParameterItem some_item = item("a");
constexpr PTZParameterItemArray *no_array = nullptr;

INSTANTIATE_TEST_SUITE_P(
    All, NullArray,
    testing::Values(
        NullCheck{"ptz_parameter_item_array_free", [] { return ptz_parameter_item_array_free(no_array), true; }},
        NullCheck{"ptz_parameter_item_array_append",
                  [] { return ptz_parameter_item_array_append(no_array, &some_item) == nullptr; },
                  "self != NULL && item != NULL"},
        NullCheck{"ptz_parameter_item_array_add",
                  [] { return ptz_parameter_item_array_add(no_array, &some_item) == nullptr; },
                  "self != NULL && item != NULL"},
        NullCheck{"ptz_parameter_item_array_get", [] { return ptz_parameter_item_array_get(no_array, 0) == nullptr; }},
        NullCheck{"ptz_parameter_item_array_get_by_name",
                  [] { return ptz_parameter_item_array_get_by_name(no_array, "a") == nullptr; }},
        NullCheck{"ptz_parameter_item_array_set",
                  [] { return !ptz_parameter_item_array_set(no_array, 0, nullptr, nullptr, 0, nullptr, 0); }},
        NullCheck{"ptz_parameter_item_array_set_by_name",
                  [] { return !ptz_parameter_item_array_set_by_name(no_array, "", nullptr, nullptr, 0, nullptr, 0); }},
        NullCheck{"ptz_parameter_item_array_set_range",
                  [] { return ptz_parameter_item_array_set_range(no_array, 0, "") == nullptr; }},
        NullCheck{"ptz_parameter_item_array_set_range_by_name",
                  [] { return ptz_parameter_item_array_set_range_by_name(no_array, "a", "") == nullptr; }},
        NullCheck{"ptz_parameter_item_array_set_value_by_name",
                  [] { return ptz_parameter_item_array_set_value_by_name(no_array, "a", nullptr) == nullptr; }},
        NullCheck{"ptz_parameter_item_array_remove",
                  [] { return ptz_parameter_item_array_remove(no_array, 0) == nullptr; }},
        NullCheck{"ptz_parameter_item_array_remove_by_name",
                  [] { return ptz_parameter_item_array_remove_by_name(no_array, "a") == nullptr; }},
        NullCheck{"ptz_parameter_item_array_copy", [] { return ptz_parameter_item_array_copy(no_array) == nullptr; }},
        NullCheck{"ptz_parameter_item_array_items", [] { return ptz_parameter_item_array_items(no_array) == 0; }},
        NullCheck{"ptz_parameter_item_array_name", [] { return ptz_parameter_item_array_name(no_array) == nullptr; }},
        NullCheck{"ptz_parameter_item_array_map",
                  [] { return ptz_parameter_item_array_map(no_array, collect_name, nullptr) == 0; }},
        NullCheck{"ptz_parameter_item_array_map_remove",
                  [] { return ptz_parameter_item_array_map_remove(no_array, collect_name, nullptr) == 0; }}),
    [](const auto &tested) { return std::string(tested.param.function); });

TEST_P(NullArray, IsACriticalOfTheFunction) {
  const GlibLogCapture log;
  EXPECT_TRUE(GetParam().returns_nothing());
  EXPECT_EQ(log.failed_check(GetParam().function, GetParam().expression), 1u);
  EXPECT_EQ(log.messages().size(), 1u);
}

TEST(ParameterItemArray, NullItemIsACritical) {
  const GlibLogCapture log;
  const Items array = new_array();
  EXPECT_EQ(ptz_parameter_item_array_append(array.get(), nullptr), nullptr);
  EXPECT_EQ(log.failed_check("ptz_parameter_item_array_append", "self != NULL && item != NULL"), 1u);
  EXPECT_EQ(ptz_parameter_item_array_add(array.get(), nullptr), nullptr);
  EXPECT_EQ(log.failed_check("ptz_parameter_item_array_add", "self != NULL && item != NULL"), 1u);
  EXPECT_EQ(array->count, 0u);
}

TEST(ParameterItemArray, NullFunctionIsACritical) {
  const GlibLogCapture log;
  const Items array = array_of({"a"});
  EXPECT_EQ(ptz_parameter_item_array_map(array.get(), nullptr, nullptr), 0);
  EXPECT_EQ(log.failed_check("ptz_parameter_item_array_map", "function != NULL"), 1u);
  EXPECT_EQ(ptz_parameter_item_array_map_remove(array.get(), nullptr, nullptr), 0);
  EXPECT_EQ(log.failed_check("ptz_parameter_item_array_map_remove", "function != NULL"), 1u);
}

// ---- the lock

TEST(ParameterItemArray, LockIsTakenByWhatUsesTheItems) {
  const Items array = array_of({"a"});
  PTZParameterItemArray *self = array.get();
  const auto locked = [](const std::function<void()> &operation) { return locks_taken_by(operation) > 0; };
  EXPECT_TRUE(locked([&] { append(array, "b"); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_add(self, &some_item); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_get(self, 0); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_get_by_name(self, "a"); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_set(self, 0, "", nullptr, 0, nullptr, 0); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_set_by_name(self, "a", "", nullptr, 0, nullptr, 0); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_set_range(self, 0, ""); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_set_range_by_name(self, "a", ""); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_set_value_by_name(self, "a", ""); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_remove(self, 1); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_remove_by_name(self, "a"); }));
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_remove_by_name(self, "a"); })) << "also where there is nothing";
  EXPECT_TRUE(locked([&] { ptz_parameter_item_array_free(self); }));
}

TEST(ParameterItemArray, LockIsNotTakenByTheRest) {
  const Items array = array_of({"a"});
  PTZParameterItemArray *self = array.get();
  EXPECT_EQ(locks_taken_by([&] {
              Names visited;
              ptz_parameter_item_array_items(self);
              ptz_parameter_item_array_name(self);
              ptz_parameter_item_array_map(self, collect_name, &visited);
              ptz_parameter_item_array_map_remove(self, collect_name, &visited);
              ptz_parameter_item_array_get_by_name(self, "a");  // there is none now
              ptz_parameter_item_array_get(self, 1);            // beyond the end
              ptz_parameter_item_array_set(self, 1, "", nullptr, 0, nullptr, 0);
              ptz_parameter_item_array_set_range(self, 1, "");
              ptz_parameter_item_array_remove(self, 1);
            }),
            0u);
}

TEST(ParameterItemArray, CopyLetsGoOfTheLockBetweenItems) {
  const Items array = array_of({"a", "b", "c"});
  EXPECT_GE(locks_taken_by([&] { Items(ptz_parameter_item_array_copy(array.get())); }), 3u);
}

TEST(ParameterItemArray, SubclassSharesTheOneLock) {
  static const GType type = subclass(PTZ_TYPE_PARAMETER_ITEM_ARRAY, "DerivedArray", nullptr);
  const Items array(PTZ_PARAMETER_ITEM_ARRAY(g_object_new(type, "name", "derived", nullptr)));
  EXPECT_NE(&PTZ_PARAMETER_ITEM_ARRAY_GET_CLASS(array.get())->mutex, the_lock());
  EXPECT_EQ(locks_taken_by([&] { append(array, "a"); }), 1u);
  EXPECT_EQ(locks_taken_by([&] { ptz_parameter_item_array_get(array.get(), 0); }), 1u);
  EXPECT_STREQ(ptz_parameter_item_array_name(array.get()), "derived");
}

TEST(ParameterItemArray, CriticalsAreWrittenWithoutTheLock) {
  const Items array = array_of({"a"});
  static bool was_free;
  was_free = false;
  const GLogFunc previous = g_log_set_default_handler(
      [](const gchar *, GLogLevelFlags, const gchar *, gpointer) {
        was_free = g_mutex_trylock(the_lock());
        if (was_free) g_mutex_unlock(the_lock());
      },
      nullptr);
  ptz_parameter_item_array_set(array.get(), 1, "", nullptr, 0, nullptr, 0);
  g_log_set_default_handler(previous, nullptr);
  EXPECT_TRUE(was_free);
}

// ---- threads

namespace {
constexpr int thread_count = 4;
constexpr int items_per_thread = 500;

void run_threads(const std::function<void(int thread)> &work) {
  std::vector<std::thread> threads;
  for (int number = 0; number < thread_count; ++number) threads.emplace_back(work, number);
  for (std::thread &thread : threads) thread.join();
}
}  // namespace

TEST(ParameterItemArray, ThreadsAppendChangeAndLookUpAtOnce) {
  const Items array = new_array();
  run_threads([&array](int thread) {
    for (int number = 0; number < items_per_thread; ++number) {
      const std::string name = std::to_string(thread) + "/" + std::to_string(number);
      append(array, name.c_str());
      EXPECT_NE(ptz_parameter_item_array_set_value_by_name(array.get(), name.c_str(), name.c_str()), nullptr);
      EXPECT_STREQ(ptz_parameter_item_array_get_by_name(array.get(), name.c_str())->value, name.c_str());
      EXPECT_NE(ptz_parameter_item_array_get(array.get(), static_cast<guint32>(number)), nullptr);
      if (number % 50 == 0) {
        Names visited;
        EXPECT_EQ(ptz_parameter_item_array_map(array.get(), collect_name, &visited), 1);
        EXPECT_GE(ptz_parameter_item_array_items(array.get()), visited.size());
        const Items copy(ptz_parameter_item_array_copy(array.get()));
        EXPECT_GE(copy->count, visited.size());
      }
    }
  });
  const Names names = names_in(array);
  ASSERT_EQ(names.size(), static_cast<std::size_t>(thread_count * items_per_thread));
  int next[thread_count] = {};
  for (const std::string &name : names) {  // each thread's items stand in its order
    const int thread = name[0] - '0';
    EXPECT_EQ(name, std::to_string(thread) + "/" + std::to_string(next[thread]++));
  }
}

TEST(ParameterItemArray, ThreadsThatAddTheSameNamesMakeEachOnce) {
  const Items array = new_array();
  run_threads([&array](int) {
    for (int number = 0; number < items_per_thread; ++number) {
      const std::string name = std::to_string(number);
      const PTZParameterItem source = item(name.c_str(), name.c_str());
      ptz_parameter_item_array_add(array.get(), &source);
    }
  });
  EXPECT_EQ(array->count, static_cast<guint32>(items_per_thread));
}

TEST(ParameterItemArray, ThreadsUseArraysOfTheirOwn) {
  run_threads([](int) {
    const Items array = new_array();
    for (int number = 0; number < items_per_thread; ++number) append(array, std::to_string(number).c_str());
    for (int number = 0; number < items_per_thread; ++number) {
      ptz_parameter_item_array_remove_by_name(array.get(), std::to_string(number).c_str());
    }
    EXPECT_EQ(array->count, 0u);
  });
}

// ---- growth

// Walking to each item costs minutes here, a look-up and a step a fraction of a second.
TEST(ParameterItemArray, OneHundredThousandItemsAreAppendedCopiedAndFoundWithoutWalking) {
  constexpr guint32 count = 100'000;
  const std::clock_t start = std::clock();
  const Items array = new_array();
  for (guint32 number = 0; number < count; ++number) append(array, std::to_string(number).c_str());
  const Items copy(ptz_parameter_item_array_copy(array.get()));
  for (guint32 number = 0; number < count; ++number) {
    const std::string name = std::to_string(number);
    ASSERT_STREQ(ptz_parameter_item_array_get_by_name(copy.get(), name.c_str())->name, name.c_str());
    ASSERT_STREQ(ptz_parameter_item_array_get(copy.get(), number)->name, name.c_str());
  }
  EXPECT_LT(std::clock() - start, 10 * CLOCKS_PER_SEC);
}
