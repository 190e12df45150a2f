#include "ptz_dynamical_properties.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <cmath>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fixtures.h"
#include "handles.h"
#include "interpose.h"
#include "subclass.h"
#include "syslog_capture.h"
#include "values.h"

using namespace ptz_test;

namespace {
std::atomic<int> threads_waiting = 0;
thread_local std::function<void()> before_next_lock;  // run once, by the next lock that the thread takes
}  // namespace

INTERPOSE(void, g_mutex_lock, (GMutex * mutex)) {
  if (before_next_lock != nullptr) std::exchange(before_next_lock, nullptr)();
  if (g_mutex_trylock(mutex)) return;
  ++threads_waiting;
  REAL(g_mutex_lock)(mutex);
  --threads_waiting;
}

namespace {

using Names = std::vector<std::string>;
using Properties = Object<PTZDynamicalProperties>;

Properties new_properties() { return Properties(ptz_dynamical_properties_new()); }

void set(const Properties &properties, const char *name, Value value) {
  ptz_dynamical_properties_set(properties.get(), name, value.release());
}

GValue *get(const Properties &properties, const char *name) {
  return ptz_dynamical_properties_get(properties.get(), name);
}

// The name is "(null)" for none.
std::string set_from_string(const Properties &properties, const char *string) {
  const Text name(ptz_dynamical_properties_set_from_string(properties.get(), string));
  return name != nullptr ? name.get() : "(null)";
}

// Calls a function for each notification of an object, until it ends.
class Listener {
  std::function<void(const char *name)> function_;
  PTZDynamicalProperties *object_;
  gulong id_;

 public:
  Listener(const Properties &properties, std::function<void(const char *)> function)
      : function_(std::move(function)), object_(properties.get()) {
    id_ = g_signal_connect(object_, "notify_change",
                           G_CALLBACK(+[](PTZDynamicalProperties *, const char *name, gpointer self) {
                             static_cast<Listener *>(self)->function_(name);
                           }),
                           this);
  }
  Listener(const Listener &) = delete;
  ~Listener() {
    if (object_ != nullptr) g_signal_handler_disconnect(object_, id_);
  }
  void forget_object() { object_ = nullptr; }
};

// Keeps the names that an object notifies.
class Heard {
  Names names_;
  Listener listener_;

 public:
  explicit Heard(const Properties &properties)
      : listener_(properties, [this](const char *name) { names_.emplace_back(name); }) {}
  Names take() { return std::exchange(names_, {}); }
};

void freeze(const Properties &properties) { ptz_dynamical_properties_freeze_notify(properties.get()); }
void thaw(const Properties &properties) { ptz_dynamical_properties_thaw_notify(properties.get()); }
void clear(const Properties &properties) { ptz_dynamical_properties_clear(properties.get()); }
int differs(const Properties &properties, const char *name, const Value &value) {
  return ptz_dynamical_properties_compare(properties.get(), name, value.get());
}

const Names nothing;

}  // namespace

// ---- values

TEST(DynamicalProperties, NewSetHasNone) {
  const Properties properties = new_properties();
  EXPECT_EQ(g_hash_table_size(properties->properties), 0u);
  EXPECT_EQ(properties->nqueue.pending, nullptr);
  EXPECT_EQ(properties->nqueue.freeze_count, 0);
  EXPECT_EQ(get(properties, "a"), nullptr);
}

TEST(DynamicalProperties, TableOwnsTheValueItself) {
  const Properties properties = new_properties();
  Value value = integer(1);
  GValue *const given = value.get();
  set(properties, "a", std::move(value));
  EXPECT_EQ(get(properties, "a"), given);
  EXPECT_EQ(g_hash_table_lookup(properties->properties, "a"), given);
}

TEST(DynamicalProperties, NameIsCopiedAndTheFirstCopyStays) {
  const Properties properties = new_properties();
  std::string name = "a";
  set(properties, name.c_str(), integer(1));
  name = "b";
  gpointer first_key = nullptr, key = nullptr;
  ASSERT_TRUE(g_hash_table_lookup_extended(properties->properties, "a", &first_key, nullptr));
  set(properties, "a", integer(2));
  ASSERT_TRUE(g_hash_table_lookup_extended(properties->properties, "a", &key, nullptr));
  EXPECT_EQ(key, first_key);
  EXPECT_EQ(g_value_get_int(get(properties, "a")), 2);
  EXPECT_EQ(g_hash_table_size(properties->properties), 1u);
}

TEST(DynamicalProperties, PropertyMayBeSetByItsOwnKey) {
  const Properties properties = new_properties();
  Heard heard(properties);
  set(properties, "a", integer(1));
  gpointer key = nullptr;
  ASSERT_TRUE(g_hash_table_lookup_extended(properties->properties, "a", &key, nullptr));
  set(properties, static_cast<const char *>(key), integer(2));
  EXPECT_EQ(g_value_get_int(get(properties, "a")), 2);
  EXPECT_EQ(heard.take(), (Names{"a", "a"}));
}

// ---- what is a change

struct Change {
  const char *description;
  std::function<Value()> first;
  std::function<Value()> second;
  bool is_change;
};

class DynamicalPropertyChange : public testing::TestWithParam<Change> {};

INSTANTIATE_TEST_SUITE_P(
    All, DynamicalPropertyChange,
    testing::Values(Change{"SameInteger", [] { return integer(1); }, [] { return integer(1); }, false},
                    Change{"OtherInteger", [] { return integer(1); }, [] { return integer(2); }, true},
                    Change{"SameBoolean", [] { return boolean(true); }, [] { return boolean(true); }, false},
                    Change{"OtherBoolean", [] { return boolean(true); }, [] { return boolean(false); }, true},
                    Change{"SameDouble", [] { return real(1.5); }, [] { return real(1.5); }, false},
                    Change{"OtherDouble", [] { return real(1.5); }, [] { return real(1.25); }, true},
                    Change{"ZeroAndNegativeZero", [] { return real(0.0); }, [] { return real(-0.0); }, false},
                    Change{"NaNAlways", [] { return real(NAN); }, [] { return real(NAN); }, true},
                    Change{"SameString", [] { return text("abc"); }, [] { return text("abc"); }, false},
                    Change{"OtherCaseOfLetters", [] { return text("abc"); }, [] { return text("ABC"); }, false},
                    Change{"OtherString", [] { return text("abc"); }, [] { return text("abd"); }, true},
                    Change{"SmallerString", [] { return text("abc"); }, [] { return text("abb"); }, true},
                    Change{"NullToText", [] { return text(nullptr); }, [] { return text("a"); }, true},
                    Change{"NullToEmptyText", [] { return text(nullptr); }, [] { return text(""); }, true},
                    Change{"TextToNull", [] { return text("a"); }, [] { return text(nullptr); }, true},
                    Change{"NullAgain", [] { return text(nullptr); }, [] { return text(nullptr); }, false},
                    Change{"OtherType", [] { return integer(1); }, [] { return boolean(true); }, true},
                    Change{"OtherTypeOfTheSameText", [] { return integer(1); }, [] { return text("1"); }, true}),
    [](const auto &tested) { return tested.param.description; });

TEST_P(DynamicalPropertyChange, IsNotifiedAndStored) {
  const GlibLogCapture log;
  const SyslogCapture system_log;
  const Properties properties = new_properties();
  Heard heard(properties);
  set(properties, "a", GetParam().first());
  EXPECT_EQ(heard.take(), Names{"a"});
  Value second = GetParam().second();
  EXPECT_EQ(differs(properties, "a", second) != 0, GetParam().is_change);
  GValue *const given = second.get();
  set(properties, "a", std::move(second));
  EXPECT_EQ(heard.take(), GetParam().is_change ? Names{"a"} : nothing);
  EXPECT_EQ(get(properties, "a"), given);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_TRUE(system_log.lines().empty());
}

TEST(DynamicalProperties, CompareOfStringsTellsTheDirection) {
  const Properties properties = new_properties();
  set(properties, "a", text("b"));
  EXPECT_LT(differs(properties, "a", text("c")), 0);
  EXPECT_GT(differs(properties, "a", text("A")), 0);
  EXPECT_LT((set(properties, "a", text(nullptr)), differs(properties, "a", text("a"))), 0);
}

TEST(DynamicalProperties, CompareWithNothingStoredDiffers) {
  EXPECT_EQ(differs(new_properties(), "a", integer(1)), 1);
  GValue zeroed = G_VALUE_INIT;
  EXPECT_EQ(ptz_dynamical_properties_compare(new_properties().get(), "a", &zeroed), 1);
}

TEST(DynamicalProperties, EveryChangeIsNotified) {
  const Properties properties = new_properties();
  Heard heard(properties);
  for (const int content : {1, 1, 2, 2, 1}) set(properties, "a", integer(content));
  EXPECT_EQ(heard.take(), (Names{"a", "a", "a"}));
}

TEST(DynamicalProperties, OtherCaseOfLettersIsStoredQuietly) {
  const Properties properties = new_properties();
  Heard heard(properties);
  set(properties, "a", text("abc"));
  heard.take();
  set(properties, "a", text("ABC"));
  EXPECT_STREQ(g_value_get_string(get(properties, "a")), "ABC");
  EXPECT_EQ(heard.take(), nothing);
}

TEST(DynamicalProperties, TypeThatCannotBeComparedIsStoredAndLogged) {
  const SyslogCapture system_log;
  const Properties properties = new_properties();
  Heard heard(properties);
  set(properties, "a", empty_value(G_TYPE_UINT));
  EXPECT_EQ(heard.take(), Names{"a"});
  EXPECT_TRUE(system_log.lines().empty());
  Value other = empty_value(G_TYPE_UINT);
  g_value_set_uint(other.get(), 7);
  const LogLine line{LOG_ERR, "_ptz_dynamical_properties_cmp: Unknown type for dynamic property"};
  EXPECT_EQ(differs(properties, "a", other), 0);
  EXPECT_EQ(system_log.lines(), std::vector{line});
  set(properties, "a", std::move(other));
  EXPECT_EQ(system_log.lines(), (std::vector{line, line}));
  EXPECT_EQ(heard.take(), nothing);
  EXPECT_EQ(g_value_get_uint(get(properties, "a")), 7u);
}

TEST(DynamicalProperties, SetToTheStoredValueItselfIsNoChange) {
  const Properties properties = new_properties();
  Heard heard(properties);
  set(properties, "a", text("abc"));
  heard.take();
  for (int times = 0; times < 2; ++times) {
    ptz_dynamical_properties_set(properties.get(), "a", get(properties, "a"));
    EXPECT_STREQ(g_value_get_string(get(properties, "a")), "abc");
  }
  EXPECT_EQ(heard.take(), nothing);
}

TEST(DynamicalProperties, SetToTheStoredNaNItselfIsAChange) {
  const Properties properties = new_properties();
  set(properties, "a", real(NAN));
  Heard heard(properties);
  ptz_dynamical_properties_set(properties.get(), "a", get(properties, "a"));
  EXPECT_TRUE(std::isnan(g_value_get_double(get(properties, "a"))));
  EXPECT_EQ(heard.take(), Names{"a"});
}

TEST(DynamicalProperties, CorruptValueIsLoggedAndStaysTheCallers) {
  const SyslogCapture system_log;
  const Properties properties = new_properties();
  Heard heard(properties);
  GValue zeroed = G_VALUE_INIT;
  ptz_dynamical_properties_set(properties.get(), "a", &zeroed);
  EXPECT_EQ(system_log.lines(), (std::vector<LogLine>{{LOG_ERR, "GValue corrupt for a\n"}}));
  EXPECT_EQ(get(properties, "a"), nullptr);
  EXPECT_EQ(heard.take(), nothing);
}

TEST(DynamicalProperties, OldContentIsReleasedWithoutALock) {
  const Properties properties = new_properties();
  const auto set_object = [&properties](GObject *object) {
    Value value = empty_value(G_TYPE_OBJECT);
    g_value_take_object(value.get(), object);
    set(properties, "a", std::move(value));
  };
  static bool gone;
  const auto new_watched = [&properties] {
    auto *object = static_cast<GObject *>(g_object_new(G_TYPE_OBJECT, nullptr));
    g_object_weak_ref(
        object,
        [](gpointer watching, GObject *) {
          ptz_dynamical_properties_get(static_cast<PTZDynamicalProperties *>(watching), "a");
          gone = true;
        },
        properties.get());
    return object;
  };
  gone = false;
  set_object(new_watched());
  set_object(new_watched());
  EXPECT_TRUE(gone);
  gone = false;
  clear(properties);
  EXPECT_TRUE(gone);
}

// ---- strings

TEST(DynamicalProperties, SetFromStringStoresAndNotifies) {
  const Properties properties = new_properties();
  Heard heard(properties);
  EXPECT_EQ(set_from_string(properties, "x:double:2.5"), "x");
  ASSERT_TRUE(G_VALUE_HOLDS_DOUBLE(get(properties, "x")));
  EXPECT_EQ(g_value_get_double(get(properties, "x")), 2.5);
  EXPECT_EQ(heard.take(), Names{"x"});
  EXPECT_EQ(set_from_string(properties, "x:gdouble:2.50"), "x");
  EXPECT_EQ(heard.take(), nothing);
  EXPECT_EQ(set_from_string(properties, "x:string:a:b"), "x");
  EXPECT_STREQ(g_value_get_string(get(properties, "x")), "a:b");
  EXPECT_EQ(heard.take(), Names{"x"});
  EXPECT_EQ(set_from_string(properties, "x:string"), "x");
  EXPECT_EQ(g_value_get_string(get(properties, "x")), nullptr);
}

class UnusableString : public testing::TestWithParam<const char *> {};

INSTANTIATE_TEST_SUITE_P(DynamicalProperties, UnusableString,
                         testing::Values("", "x", ":int32:1", "x::1", "x:float32:1", "x:void:1", "x:guint:1",
                                         "x:GObject:1", "x:GBoxed:1"));

TEST_P(UnusableString, ChangesNothing) {
  const GlibLogCapture log;
  const SyslogCapture system_log;
  const Properties properties = new_properties();
  set(properties, "x", integer(7));
  Heard heard(properties);
  EXPECT_EQ(set_from_string(properties, GetParam()), "(null)");
  EXPECT_EQ(g_value_get_int(get(properties, "x")), 7);
  EXPECT_EQ(g_hash_table_size(properties->properties), 1u);
  EXPECT_EQ(heard.take(), nothing);
  EXPECT_EQ(log.criticals(), 1u);
  EXPECT_TRUE(system_log.lines().empty());
}

TEST(DynamicalProperties, CriticalsOfSetFromStringAreWrittenWithoutALock) {
  const Properties properties = new_properties();
  static PTZDynamicalProperties *asked;
  asked = properties.get();
  const GLogFunc previous = g_log_set_default_handler(
      [](const gchar *, GLogLevelFlags, const gchar *, gpointer) { ptz_dynamical_properties_get(asked, "x"); },
      nullptr);
  EXPECT_EQ(set_from_string(properties, "x:float32:1"), "(null)");
  g_log_set_default_handler(previous, nullptr);
}

TEST(DynamicalProperties, StringsAreTheFormattedOnes) {
  const Properties properties = new_properties();
  GValue *value = nullptr;
  const Text name(ptz_dynamical_properties_string_to_gvalue(properties.get(), &value, "zoom:int32:42"));
  const Value owned(value);
  EXPECT_STREQ(name.get(), "zoom");
  EXPECT_EQ(g_value_get_int(value), 42);
  EXPECT_STREQ(Text(ptz_dynamical_properties_gvalue_to_string(properties.get(), "zoom", value)).get(), "zoom:int32:42");
  EXPECT_EQ(g_hash_table_size(properties->properties), 0u);
}

TEST(DynamicalProperties, StringOfATypeWithoutTextFormGivesAnEmptyValueWithoutName) {
  const GlibLogCapture log;
  GValue *value = nullptr;
  EXPECT_EQ(ptz_dynamical_properties_string_to_gvalue(new_properties().get(), &value, "x:guint:1"), nullptr);
  const Value owned(value);
  ASSERT_NE(value, nullptr);
  EXPECT_TRUE(G_VALUE_HOLDS_UINT(value));
  EXPECT_EQ(ptz_dynamical_properties_gvalue_to_string(new_properties().get(), "x", empty_value(G_TYPE_UINT).get()),
            nullptr);
  EXPECT_EQ(log.criticals(), 2u);
}

// ---- holding notifications back

TEST(DynamicalProperties, ThawDeliversInTheOrderOfTheChanges) {
  const Properties properties = new_properties();
  Heard heard(properties);
  freeze(properties);
  set(properties, "a", integer(1));
  set(properties, "b", integer(1));
  set(properties, "a", integer(2));
  EXPECT_EQ(heard.take(), nothing);
  thaw(properties);
  EXPECT_EQ(heard.take(), (Names{"a", "b", "a"}));
  EXPECT_EQ(properties->nqueue.pending, nullptr);
  EXPECT_EQ(properties->nqueue.freeze_count, 0);
  set(properties, "a", integer(3));
  EXPECT_EQ(heard.take(), Names{"a"});
}

TEST(DynamicalProperties, WaitingNamesAreTheKeysOfTheTableNewestFirst) {
  const Properties properties = new_properties();
  freeze(properties);
  set(properties, "a", integer(1));
  EXPECT_EQ(set_from_string(properties, "b:int:1"), "b");
  gpointer a = nullptr, b = nullptr;
  g_hash_table_lookup_extended(properties->properties, "a", &a, nullptr);
  g_hash_table_lookup_extended(properties->properties, "b", &b, nullptr);
  ASSERT_EQ(g_slist_length(properties->nqueue.pending), 2u);
  EXPECT_EQ(properties->nqueue.pending->data, b);
  EXPECT_EQ(properties->nqueue.pending->next->data, a);
}

TEST(DynamicalProperties, ChangeAndBackAreBothNotified) {
  const Properties properties = new_properties();
  set(properties, "a", integer(1));
  Heard heard(properties);
  freeze(properties);
  set(properties, "a", integer(2));
  set(properties, "a", integer(1));
  set(properties, "a", integer(1));
  thaw(properties);
  EXPECT_EQ(heard.take(), (Names{"a", "a"}));
}

TEST(DynamicalProperties, EveryFreezeNeedsItsThaw) {
  const Properties properties = new_properties();
  Heard heard(properties);
  freeze(properties);
  freeze(properties);
  set(properties, "a", integer(1));
  thaw(properties);
  EXPECT_EQ(heard.take(), nothing);
  EXPECT_EQ(properties->nqueue.freeze_count, 1);
  thaw(properties);
  EXPECT_EQ(heard.take(), Names{"a"});
}

TEST(DynamicalProperties, FreezeIsThatOfOneObject) {
  const Properties frozen = new_properties(), other = new_properties();
  Heard heard_of_frozen(frozen), heard_of_other(other);
  freeze(frozen);
  set(frozen, "a", integer(1));
  set(other, "a", integer(1));
  EXPECT_EQ(heard_of_frozen.take(), nothing);
  EXPECT_EQ(heard_of_other.take(), Names{"a"});
}

TEST(DynamicalProperties, ThawWithoutFreezeIsACritical) {
  const GlibLogCapture log;
  const Properties properties = new_properties();
  thaw(properties);
  EXPECT_EQ(log.failed_check("ptz_dynamical_properties_thaw_notify", "self->nqueue.freeze_count > 0"), 1u);
  EXPECT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(properties->nqueue.freeze_count, 0);
}

TEST(DynamicalProperties, ThawThatAnotherThreadForestalledIsAWarning) {
  const GlibLogCapture log;
  const Properties properties = new_properties();
  freeze(properties);
  before_next_lock = [&properties] { thaw(properties); };
  thaw(properties);
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].level & G_LOG_LEVEL_MASK, G_LOG_LEVEL_WARNING);
  const Text expected(
      g_strdup_printf("ptz_dynamical_properties_thaw_notify: property-changed notification for "
                      "PTZDynamicalProperties(%p) is not frozen",
                      static_cast<void *>(properties.get())));
  EXPECT_EQ(log.messages()[0].text, expected.get());
  EXPECT_EQ(properties->nqueue.freeze_count, 0);
}

TEST(DynamicalProperties, FreezesAreCountedToTheLastOne) {
  const Properties properties = new_properties();
  Heard heard(properties);
  {
    const GlibLogCapture log;
    for (int count = 0; count < 65'535; ++count) freeze(properties);
    EXPECT_TRUE(log.messages().empty());
  }
  EXPECT_EQ(properties->nqueue.freeze_count, 65'535);
  {
    const GlibLogCapture log;
    freeze(properties);
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages()[0].level & G_LOG_LEVEL_MASK, G_LOG_LEVEL_CRITICAL);
    const Text expected(g_strdup_printf(
        "Free queue for PTZDynamicalProperties (%p) is larger than 65535, called g_object_freeze_notify() too often. "
        "Forgot to call ptz_dynamical_properties_notify_queue_thaw() or infinite loop",
        static_cast<void *>(properties.get())));
    EXPECT_EQ(log.messages()[0].text, expected.get());
  }
  EXPECT_EQ(properties->nqueue.freeze_count, 65'535);
  set(properties, "a", integer(1));
  for (int count = 0; count < 65'534; ++count) thaw(properties);
  EXPECT_EQ(heard.take(), nothing);
  thaw(properties);
  EXPECT_EQ(heard.take(), Names{"a"});
}

// ---- clearing and ending

TEST(DynamicalProperties, ClearRemovesAllWithoutNotifications) {
  const Properties properties = new_properties();
  set(properties, "a", integer(1));
  set(properties, "b", text("b"));
  Heard heard(properties);
  clear(properties);
  EXPECT_EQ(g_hash_table_size(properties->properties), 0u);
  EXPECT_EQ(get(properties, "a"), nullptr);
  EXPECT_EQ(heard.take(), nothing);
  set(properties, "a", integer(1));
  EXPECT_EQ(heard.take(), Names{"a"});
  clear(properties);
  clear(properties);
}

TEST(DynamicalProperties, NamesThatWaitOutliveAClear) {
  const Properties properties = new_properties();
  Heard heard(properties);
  freeze(properties);
  for (int times = 0; times < 3; ++times) {
    set(properties, "a name that is long enough for a block of its own", integer(times));
    set(properties, "b", integer(times));
    clear(properties);
  }
  set(properties, "b", integer(9));
  const std::string a = "a name that is long enough for a block of its own";
  thaw(properties);
  EXPECT_EQ(heard.take(), (Names{a, "b", a, "b", a, "b", "b"}));
}

TEST(DynamicalProperties, EndDropsWhatWaits) {
  Properties properties = new_properties();
  Names heard;
  Listener listener(properties, [&heard](const char *name) { heard.emplace_back(name); });
  listener.forget_object();
  freeze(properties);
  set(properties, "a", integer(1));
  clear(properties);
  set(properties, "b", integer(1));
  properties.reset();
  EXPECT_EQ(heard, nothing);
}

// ---- handlers

TEST(DynamicalProperties, SignalIsDescribed) {
  g_type_class_ref(PTZ_TYPE_DYNAMICAL_PROPERTIES);
  const guint id = g_signal_lookup("notify_change", PTZ_TYPE_DYNAMICAL_PROPERTIES);
  const Properties properties = new_properties();
  EXPECT_EQ(PTZ_DYNAMICAL_PROPERTIES_GET_CLASS(properties.get())->notify_change, id);
  GSignalQuery query;
  g_signal_query(id, &query);
  EXPECT_EQ(query.itype, PTZ_TYPE_DYNAMICAL_PROPERTIES);
  EXPECT_EQ(query.signal_flags, G_SIGNAL_RUN_LAST | G_SIGNAL_NO_RECURSE | G_SIGNAL_NO_HOOKS);
  EXPECT_EQ(query.return_type, G_TYPE_NONE);
  ASSERT_EQ(query.n_params, 1u);
  EXPECT_EQ(query.param_types[0], G_TYPE_STRING);
}

TEST(DynamicalProperties, HandlerMayGetCompareAndSetWhatIsFrozen) {
  const Properties properties = new_properties();
  Names heard;
  const Listener listener(properties, [&](const char *name) {
    heard.emplace_back(name);
    EXPECT_NE(get(properties, name), nullptr);
    EXPECT_EQ(differs(properties, name, integer(1)), 0);
    if (heard.size() > 1) return;
    freeze(properties);
    set(properties, "b", integer(1));
  });
  set(properties, "a", integer(1));
  EXPECT_EQ(heard, Names{"a"});
  thaw(properties);
  EXPECT_EQ(heard, (Names{"a", "b"}));
}

TEST(DynamicalProperties, HandlerMayFreezeAndThawWhereNothingChanged) {
  const Properties properties = new_properties();
  const Listener listener(properties, [&properties](const char *) {
    freeze(properties);
    thaw(properties);
  });
  set(properties, "a", integer(1));
}

TEST(DynamicalProperties, HandlerMayClear) {
  const Properties properties = new_properties();
  Names heard;
  freeze(properties);
  set(properties, "a", integer(1));
  set(properties, "b", integer(1));
  const Listener listener(properties, [&](const char *name) {
    clear(properties);
    heard.emplace_back(name);
  });
  thaw(properties);
  EXPECT_EQ(heard, (Names{"a", "b"}));
}

TEST(DynamicalProperties, HandlerMayDropTheLastReference) {
  Properties properties = new_properties();
  PTZDynamicalProperties *const object = properties.get();
  freeze(properties);
  set(properties, "a", integer(1));
  set(properties, "b", integer(1));
  Names heard;
  Listener listener(properties, [&](const char *name) {
    heard.emplace_back(name);
    properties.reset();
  });
  listener.forget_object();
  ptz_dynamical_properties_thaw_notify(object);
  EXPECT_EQ(heard, (Names{"a", "b"}));
  EXPECT_EQ(properties, nullptr);
}

// ---- subclasses

namespace {

Names calls;  // of overridden operations

void derived_class_init(gpointer klass, gpointer) {
  auto *operations = PTZ_DYNAMICAL_PROPERTIES_CLASS(klass);
  operations->set_from_string = [](PTZDynamicalProperties *, const gchar *) {
    calls.emplace_back("set_from_string");
    return g_strdup("derived");
  };
  operations->string_to_gvalue = [](PTZDynamicalProperties *, GValue **, const gchar *) {
    calls.emplace_back("string_to_gvalue");
    return g_strdup("derived");
  };
  operations->gvalue_to_string = [](PTZDynamicalProperties *, const gchar *, const GValue *) {
    calls.emplace_back("gvalue_to_string");
    return g_strdup("derived");
  };
  operations->set = [](PTZDynamicalProperties *, const gchar *, GValue *) { calls.emplace_back("set"); };
  operations->get = [](PTZDynamicalProperties *, const gchar *) -> GValue * {
    calls.emplace_back("get");
    return nullptr;
  };
  operations->compare = [](PTZDynamicalProperties *, const gchar *, const GValue *) {
    calls.emplace_back("compare");
    return 42;
  };
  operations->clear = [](PTZDynamicalProperties *) { calls.emplace_back("clear"); };
}

}  // namespace

TEST(DynamicalProperties, EveryOperationIsThatOfTheClassOfTheInstance) {
  static const GType type = subclass(PTZ_TYPE_DYNAMICAL_PROPERTIES, "DerivedProperties", derived_class_init);
  const Properties properties(PTZ_DYNAMICAL_PROPERTIES(g_object_new(type, nullptr)));
  PTZDynamicalProperties *self = properties.get();
  calls.clear();
  EXPECT_STREQ(Text(ptz_dynamical_properties_set_from_string(self, nullptr)).get(), "derived");
  EXPECT_STREQ(Text(ptz_dynamical_properties_string_to_gvalue(self, nullptr, nullptr)).get(), "derived");
  EXPECT_STREQ(Text(ptz_dynamical_properties_gvalue_to_string(self, nullptr, nullptr)).get(), "derived");
  ptz_dynamical_properties_set(self, nullptr, nullptr);
  EXPECT_EQ(ptz_dynamical_properties_get(self, nullptr), nullptr);
  EXPECT_EQ(ptz_dynamical_properties_compare(self, nullptr, nullptr), 42);
  ptz_dynamical_properties_clear(self);
  EXPECT_EQ(calls,
            (Names{"set_from_string", "string_to_gvalue", "gvalue_to_string", "set", "get", "compare", "clear"}));
}

TEST(DynamicalProperties, SetFromStringOfTheBaseClassParsesAndStoresItself) {
  static const GType type =
      subclass(PTZ_TYPE_DYNAMICAL_PROPERTIES, "HalfDerivedProperties", [](gpointer klass, gpointer) {
        const auto *base = PTZ_DYNAMICAL_PROPERTIES_CLASS(g_type_class_peek_parent(klass));
        derived_class_init(klass, nullptr);
        PTZ_DYNAMICAL_PROPERTIES_CLASS(klass)->set_from_string = base->set_from_string;
      });
  const Properties properties(PTZ_DYNAMICAL_PROPERTIES(g_object_new(type, nullptr)));
  Heard heard(properties);
  calls.clear();
  EXPECT_EQ(set_from_string(properties, "a:int:1"), "a");
  EXPECT_EQ(calls, nothing);
  EXPECT_EQ(heard.take(), Names{"a"});
}

namespace {

void (*in_finalize)(PTZDynamicalProperties *);

// Ends an object of a subclass whose finalize calls the function before it chains up.
void finalize_with(void (*function)(PTZDynamicalProperties *)) {
  static const GType type = subclass(PTZ_TYPE_DYNAMICAL_PROPERTIES, "BusyInFinalize", [](gpointer klass, gpointer) {
    G_OBJECT_CLASS(klass)->finalize = [](GObject *object) {
      in_finalize(PTZ_DYNAMICAL_PROPERTIES(object));
      ptz_dynamical_properties_finalize(object);
    };
  });
  in_finalize = function;
  Properties properties(PTZ_DYNAMICAL_PROPERTIES(g_object_new(type, nullptr)));
  Names heard;
  Listener listener(properties, [&heard](const char *name) { heard.emplace_back(name); });
  listener.forget_object();
  set(properties, "a", integer(1));
  properties.reset();
  EXPECT_EQ(heard, Names{"a"});
}

}  // namespace

TEST(DynamicalProperties, SetInTheFinalizeOfASubclassStoresWithoutAMessage) {
  const GlibLogCapture log;
  finalize_with([](PTZDynamicalProperties *self) {
    ptz_dynamical_properties_set(self, "a", integer(2).release());
    g_free(ptz_dynamical_properties_set_from_string(self, "b:string:text"));
    EXPECT_EQ(g_value_get_int(ptz_dynamical_properties_get(self, "a")), 2);
    EXPECT_STREQ(g_value_get_string(ptz_dynamical_properties_get(self, "b")), "text");
  });
  EXPECT_TRUE(log.messages().empty());
}

TEST(DynamicalProperties, ThawInTheFinalizeOfASubclassDropsWhatWaitsWithoutAMessage) {
  const GlibLogCapture log;
  finalize_with([](PTZDynamicalProperties *self) {
    ptz_dynamical_properties_freeze_notify(self);
    ptz_dynamical_properties_set(self, "a", integer(2).release());
    ptz_dynamical_properties_thaw_notify(self);
    EXPECT_EQ(self->nqueue.pending, nullptr);
  });
  EXPECT_TRUE(log.messages().empty());
}

// ---- argument checks

struct FailedCheck {
  const char *function;
  const char *expression;
  std::function<bool(PTZDynamicalProperties *valid)> is_refused;
};

class DynamicalPropertiesCheck : public testing::TestWithParam<FailedCheck> {};

constexpr char is_properties[] = "PTZ_IS_DYNAMICAL_PROPERTIES (self)";
constexpr PTZDynamicalProperties *no_properties = nullptr;

INSTANTIATE_TEST_SUITE_P(
    All, DynamicalPropertiesCheck,
    testing::Values(
        FailedCheck{"_ptz_dynamical_properties_get", is_properties,
                    [](auto *) { return ptz_dynamical_properties_get(no_properties, "a") == nullptr; }},
        FailedCheck{"_ptz_dynamical_properties_get", "name",
                    [](auto *self) { return ptz_dynamical_properties_get(self, nullptr) == nullptr; }},
        FailedCheck{"_ptz_dynamical_properties_set", is_properties,
                    [](auto *) {
                      ptz_dynamical_properties_set(no_properties, "a", integer(1).get());
                      return true;
                    }},
        FailedCheck{"_ptz_dynamical_properties_set", "name",
                    [](auto *self) {
                      ptz_dynamical_properties_set(self, nullptr, integer(1).get());
                      return g_hash_table_size(self->properties) == 0;
                    }},
        FailedCheck{"_ptz_dynamical_properties_set", "value",
                    [](auto *self) {
                      ptz_dynamical_properties_set(self, "a", nullptr);
                      return g_hash_table_size(self->properties) == 0;
                    }},
        FailedCheck{"_ptz_dynamical_properties_set_from_string", is_properties,
                    [](auto *) { return !ptz_dynamical_properties_set_from_string(no_properties, "a:int:1"); }},
        FailedCheck{"_ptz_dynamical_properties_set_from_string", "set",
                    [](auto *self) { return ptz_dynamical_properties_set_from_string(self, nullptr) == nullptr; }},
        FailedCheck{"_ptz_dynamical_properties_string_to_gvalue", "string",
                    [](auto *self) {
                      GValue *value = nullptr;
                      return !ptz_dynamical_properties_string_to_gvalue(self, &value, nullptr) && value == nullptr;
                    }},
        FailedCheck{"_ptz_dynamical_properties_string_to_gvalue", "value",
                    [](auto *self) { return !ptz_dynamical_properties_string_to_gvalue(self, nullptr, "a:int:1"); }},
        FailedCheck{
            "_ptz_dynamical_properties_gvalue_to_string", "name",
            [](auto *self) { return !ptz_dynamical_properties_gvalue_to_string(self, nullptr, integer(1).get()); }},
        FailedCheck{"_ptz_dynamical_properties_gvalue_to_string", "value",
                    [](auto *self) { return !ptz_dynamical_properties_gvalue_to_string(self, "a", nullptr); }},
        FailedCheck{"_ptz_dynamical_properties_compare", is_properties,
                    [](auto *) { return ptz_dynamical_properties_compare(no_properties, "a", integer(1).get()) != 0; }},
        FailedCheck{"_ptz_dynamical_properties_compare", "name",
                    [](auto *self) { return ptz_dynamical_properties_compare(self, nullptr, integer(1).get()) != 0; }},
        FailedCheck{"_ptz_dynamical_properties_compare", "value",
                    [](auto *self) { return ptz_dynamical_properties_compare(self, "a", nullptr) != 0; }},
        FailedCheck{"_ptz_dynamical_properties_clear", is_properties,
                    [](auto *) { return ptz_dynamical_properties_clear(no_properties), true; }},
        FailedCheck{"ptz_dynamical_properties_freeze_notify", is_properties,
                    [](auto *) { return ptz_dynamical_properties_freeze_notify(no_properties), true; }},
        FailedCheck{"ptz_dynamical_properties_thaw_notify", is_properties,
                    [](auto *) { return ptz_dynamical_properties_thaw_notify(no_properties), true; }}));

TEST_P(DynamicalPropertiesCheck, IsACriticalOfTheFunctionThatDoesTheWork) {
  const Properties properties = new_properties();
  const GlibLogCapture log;
  EXPECT_TRUE(GetParam().is_refused(properties.get()));
  EXPECT_EQ(log.failed_check(GetParam().function, GetParam().expression), 1u);
  EXPECT_EQ(log.messages().size(), 1u);
}

TEST(DynamicalProperties, ObjectOfAnotherTypeIsACritical) {
  const Object<GObject> other(static_cast<GObject *>(g_object_new(G_TYPE_OBJECT, nullptr)));
  const GlibLogCapture log;
  EXPECT_EQ(ptz_dynamical_properties_get(reinterpret_cast<PTZDynamicalProperties *>(other.get()), "a"), nullptr);
  EXPECT_EQ(log.failed_check("_ptz_dynamical_properties_get", is_properties), 1u);
}

// ---- threads

TEST(DynamicalProperties, OtherThreadsMayUseTheTableWhileAHandlerRuns) {
  const Properties properties = new_properties(), other = new_properties();
  set(other, "a", integer(1));
  int compared = 1;
  const Listener listener(properties, [&](const char *name) {
    std::thread([&] {
      EXPECT_NE(get(properties, name), nullptr);
      compared = differs(other, "a", integer(1));
      freeze(other);
      set(other, "b", integer(1));
    }).join();
  });
  set(properties, "a", integer(1));
  EXPECT_EQ(compared, 0);
  EXPECT_NE(get(other, "b"), nullptr);
}

TEST(DynamicalProperties, NamesOutliveAClearWhileTheirThreadWaitsToEmit) {
  const Properties slow = new_properties(), properties = new_properties();
  Names heard;
  const Listener keeps_names(properties, [&heard](const char *name) { heard.emplace_back(name); });
  std::thread waiting;
  const Listener holds_emission(slow, [&](const char *) {
    waiting = std::thread(
        [&properties] { set(properties, "a name that is long enough for a block of its own", integer(1)); });
    EXPECT_TRUE(run_until([] { return threads_waiting > 0; }));
    EXPECT_EQ(heard, nothing);
    clear(properties);
  });
  set(slow, "a", integer(1));
  waiting.join();
  EXPECT_EQ(heard, Names{"a name that is long enough for a block of its own"});
}

TEST(DynamicalProperties, BatchesOfAllObjectsComeOneAfterAnother) {
  constexpr int thread_count = 4, changes = 200;
  std::atomic<int> inside = 0, most_inside = 0, total = 0;
  std::vector<std::thread> threads;
  const Properties shared = new_properties();
  const auto count = [&](const char *) {
    const int now = ++inside;
    if (now > most_inside) most_inside = now;
    ++total;
    std::this_thread::yield();
    --inside;
  };
  const Listener listener_of_shared(shared, count);
  for (int number = 0; number < thread_count; ++number) {
    threads.emplace_back([&, number] {
      const Properties own = new_properties();
      const Listener listener(own, count);
      const std::string name = std::to_string(number);
      for (int content = 0; content < changes; ++content) {
        set(own, "a", integer(content));
        set(shared, name.c_str(), integer(content));
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(most_inside, 1);
  EXPECT_EQ(total, thread_count * changes * 2);
}

TEST(DynamicalProperties, ThreadsFreezeChangeAndThawAtOnce) {
  constexpr int thread_count = 4, rounds = 200;
  const Properties properties = new_properties();
  std::atomic<int> total = 0;
  const Listener listener(properties, [&total](const char *) { ++total; });
  std::vector<std::thread> threads;
  for (int number = 0; number < thread_count; ++number) {
    threads.emplace_back([&, number] {
      const std::string name = std::to_string(number);
      const std::string string = name + ":int:";
      for (int round = 0; round < rounds; ++round) {
        freeze(properties);
        set(properties, name.c_str(), integer(2 * round));
        EXPECT_EQ(set_from_string(properties, (string + std::to_string(2 * round + 1)).c_str()), name);
        EXPECT_EQ(differs(properties, name.c_str(), integer(2 * round + 1)), 0);
        EXPECT_NE(get(properties, name.c_str()), nullptr);
        thaw(properties);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(total, thread_count * rounds * 2);
  EXPECT_EQ(properties->nqueue.freeze_count, 0);
  EXPECT_EQ(properties->nqueue.pending, nullptr);
}

TEST(DynamicalProperties, ThreadsClearWhileOthersChange) {
  const Properties properties = new_properties();
  std::atomic<int> total = 0;
  const Listener listener(properties, [&total](const char *name) { total += name[0] == 'p' ? 1 : 1000; });
  std::atomic<bool> done = false;
  std::thread clearing([&] {
    while (!done) clear(properties);
  });
  for (int round = 0; round < 500; ++round) {
    freeze(properties);
    set(properties, "property of which one is sure that its name has a block of its own", real(NAN));
    thaw(properties);
  }
  done = true;
  clearing.join();
  EXPECT_EQ(total, 500);
}

// ---- growth

// A walk for each property costs minutes here, a look-up a fraction of a second.
TEST(DynamicalProperties, OneHundredThousandPropertiesAreSetNotifiedAndClearedWithoutWalking) {
  constexpr int count = 100'000;
  const Properties properties = new_properties();
  int heard = 0;
  const Listener listener(properties, [&heard](const char *) { ++heard; });
  const std::clock_t start = std::clock();
  freeze(properties);
  for (int number = 0; number < count; ++number) set(properties, std::to_string(number).c_str(), integer(number));
  for (int number = 0; number < count; ++number) {
    ASSERT_EQ(g_value_get_int(get(properties, std::to_string(number).c_str())), number);
  }
  clear(properties);
  thaw(properties);
  EXPECT_EQ(heard, count);
  EXPECT_LT(std::clock() - start, 10 * CLOCKS_PER_SEC);
}
