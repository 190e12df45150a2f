#include "ptz_status_cache.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "fake_store.h"
#include "handles.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;

using Handle = std::unique_ptr<PTZStatusCacheGroup, FreeWith<ptz_status_cache_free_group>>;
using Lines = std::vector<LogLine>;

constexpr auto position = PTZ_SC_GROUP_POSITION, preset = PTZ_SC_GROUP_PRESET, various = PTZ_SC_GROUP_VARIOUS,
               limit = PTZ_SC_GROUP_LIMIT;

Handle set_up(int group, guint instance, gint max_params) {
  return Handle(ptz_status_cache_setup_group(static_cast<PTZSCGroup>(group), instance, max_params));
}

bool add(const Handle &handle, int param, gpointer value) {
  return ptz_status_cache_add_param(handle.get(), static_cast<PTZSCParam>(param), value) != FALSE;
}
bool update(const Handle &handle) { return ptz_status_cache_update_group(handle.get()) != FALSE; }
bool fetch(const Handle &handle) { return ptz_status_cache_fetch_group(handle.get()) != FALSE; }

// A handle with the first parameters of its group bound to the elements of an array.
struct Bound {
  gint32 values[8] = {};
  Handle handle;
  Bound(int group, int first, int count, int capacity) : handle(set_up(group, 5, capacity)) {
    for (int i = 0; i < count; ++i) EXPECT_TRUE(add(handle, first + i, &values[i]));
  }
};

std::string error_text(int error) { return std::strerror(error); }

struct StatusCache : testing::Test {
  FakeStore store;
  SyslogCapture log;
};

// --- setting up -------------------------------------------------------------------------------------------------

struct Kind {
  int group;
  std::string prefix;
  guint32 size;
  int first, last;
};
const Kind kinds[] = {{0, "PTZ_POSITION_IS", 1536, 0, 46},
                      {1, "PTZ_PRESET_IS", 64, 0, -1},
                      {2, "PTZ_VARIOUS_IS", 228, 49, 58},
                      {3, "PTZ_LIMIT_IS", 512, 59, 72}};

struct StatusCacheKind : testing::TestWithParam<Kind> {
  FakeStore store;
  SyslogCapture log;
};
INSTANTIATE_TEST_SUITE_P(All, StatusCacheKind, testing::ValuesIn(kinds),
                         [](const auto &info) { return info.param.prefix; });

TEST_P(StatusCacheKind, SetupFillsInTheHandle) {
  const auto &kind = GetParam();
  const auto handle = set_up(kind.group, 4294967295U, 3);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(handle->group, kind.group);
  EXPECT_EQ(handle->name, kind.prefix + "4294967295");
  EXPECT_EQ(handle->size, kind.size);
  EXPECT_EQ(handle->instance, 4294967295U);
  EXPECT_EQ(handle->count, 0);
  EXPECT_EQ(handle->capacity, 3);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(handle->params[i], nullptr);
  EXPECT_EQ(set_up(kind.group, 0, 3)->name, kind.prefix + "0");
  EXPECT_TRUE(store.calls.empty()) << "nothing is registered with the store";
  EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(StatusCacheKind, OnlyTheParametersOfTheGroupCanBeBound) {
  const auto &kind = GetParam();
  const auto handle = set_up(kind.group, 1, 100);
  gint64 value = 0;
  int count = 0;
  for (int param = -2; param < 100; ++param) {
    const SyslogCapture one;
    const bool belongs = param >= kind.first && param <= kind.last;
    EXPECT_EQ(add(handle, param, &value), belongs) << param;
    if (belongs) ++count;
    EXPECT_EQ(handle->count, count);
    EXPECT_EQ(handle->params[count], nullptr);
    Lines expected;
    if (!belongs && kind.group != preset) {
      expected.push_back({LOG_ERR, "Could not add parameter to group " + std::to_string(kind.group) +
                                       ". No such parameter " + std::to_string(param) + "!"});
    }
    EXPECT_EQ(one.lines(), expected);
  }
}

TEST_P(StatusCacheKind, AnUpdateThatFindsNoGroupMakesItAndWritesAgain) {
  const auto &kind = GetParam();
  const auto handle = set_up(kind.group, 7, 1);
  gint32 value = 42;
  EXPECT_EQ(add(handle, kind.first, &value), kind.group != preset);
  EXPECT_TRUE(update(handle));
  ASSERT_EQ(store.order(), "set create set");
  EXPECT_EQ(store.calls[1].name, kind.prefix + "7");
  EXPECT_EQ(store.calls[1].size, kind.size);
  EXPECT_EQ(store.calls[1].mode, 0);
  EXPECT_EQ(store.calls[0].mode, 2);
  EXPECT_EQ(store.calls[2].mode, 2);
  EXPECT_EQ(store.calls[0].values, store.calls[2].values);
  EXPECT_TRUE(update(handle));
  EXPECT_EQ(store.order(), "set create set set");
  EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(StatusCache, AnUnknownGroupCannotBeSetUp) {
  for (const int group : {-1, 4, 5, std::numeric_limits<int>::max()}) {
    const SyslogCapture one;
    EXPECT_EQ(set_up(group, 1, 1), nullptr);
    EXPECT_EQ(one.lines(),
              (Lines{{LOG_ERR, "Could not setup status cache group. No such group " + std::to_string(group) + "!"}}));
  }
}

TEST_F(StatusCache, AHandleForNoParametersOrFewerIsEmptyAndSafe) {
  gint32 value = 0;
  for (const int capacity : {0, -1, std::numeric_limits<int>::min()}) {
    const auto handle = set_up(limit, 1, capacity);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->capacity, capacity);
    EXPECT_FALSE(add(handle, 59, &value));
    EXPECT_EQ(update(handle), capacity == 0);
    EXPECT_EQ(fetch(handle), capacity == 0);
    EXPECT_EQ(handle->params[0], nullptr);
  }
}

// --- keys -------------------------------------------------------------------------------------------------------

struct Key {
  int group, param;
  std::string name;
  guint32 size, type;
};
const Key keys[] = {
    {0, 0, "PAN_DEG", 4, 2},
    {0, 1, "TILT_DEG", 4, 2},
    {0, 2, "PAN_MECH_STEPS", 4, 1},
    {0, 3, "TILT_MECH_STEPS", 4, 1},
    {0, 4, "FIXED_PAN", 4, 1},
    {0, 5, "FIXED_TILT", 4, 1},
    {0, 6, "ZOOM_MAG", 4, 2},
    {0, 7, "ZOOM_KORVO", 4, 1},
    {0, 8, "ZOOM_HFOV", 4, 2},
    {0, 9, "ZOOM_VFOV", 4, 2},
    {0, 10, "ZOOM_MASK_HFOV", 4, 2},
    {0, 11, "ZOOM_MASK_VFOV", 4, 2},
    {0, 12, "IRIS_KORVO", 4, 1},
    {0, 13, "FOCUS_KORVO", 4, 1},
    {0, 14, "BRIGHTNESS_KORVO", 4, 1},
    {0, 15, "PAN_STATUS", 4, 1},
    {0, 16, "TILT_STATUS", 4, 1},
    {0, 17, "ZOOM_STATUS", 4, 1},
    {0, 18, "IRIS_STATUS", 4, 1},
    {0, 19, "FOCUS_STATUS", 4, 1},
    {0, 20, "BRIGHTNESS_STATUS", 4, 1},
    {0, 21, "UPDATE_RATE", 4, 1},
    {0, 22, "TIME_VAL", 8, 4},
    {0, 23, "PAN_STATUS_IDLE_TIME", 8, 5},
    {0, 24, "PAN_STATUS_MOVING_TIME", 8, 5},
    {0, 25, "TILT_STATUS_IDLE_TIME", 8, 5},
    {0, 26, "TILT_STATUS_MOVING_TIME", 8, 5},
    {0, 27, "ZOOM_STATUS_IDLE_TIME", 8, 5},
    {0, 28, "ZOOM_STATUS_MOVING_TIME", 8, 5},
    {0, 29, "IRIS_STATUS_IDLE_TIME", 8, 5},
    {0, 30, "IRIS_STATUS_MOVING_TIME", 8, 5},
    {0, 31, "FOCUS_STATUS_IDLE_TIME", 8, 5},
    {0, 32, "FOCUS_STATUS_MOVING_TIME", 8, 5},
    {0, 33, "BRIGHT_STATUS_IDLE_TIME", 8, 5},
    {0, 34, "BRIGHT_STATUS_MOVING_TIME", 8, 5},
    {0, 35, "GM_PAN_STATUS_IDLE_TIME", 8, 5},
    {0, 36, "GM_PAN_STATUS_MOVING_TIME", 8, 5},
    {0, 37, "GM_TILT_STATUS_IDLE_TIME", 8, 5},
    {0, 38, "GM_TILT_STATUS_MOVING_TIME", 8, 5},
    {0, 39, "GM_ZOOM_STATUS_IDLE_TIME", 8, 5},
    {0, 40, "GM_ZOOM_STATUS_MOVING_TIME", 8, 5},
    {0, 41, "GM_IRIS_STATUS_IDLE_TIME", 8, 5},
    {0, 42, "GM_IRIS_STATUS_MOVING_TIME", 8, 5},
    {0, 43, "GM_FOCUS_STATUS_IDLE_TIME", 8, 5},
    {0, 44, "GM_FOCUS_STATUS_MOVING_TIME", 8, 5},
    {0, 45, "GM_BRIGHT_STATUS_IDLE_TIME", 8, 5},
    {0, 46, "GM_BRIGHT_STATUS_MOVING_TIME", 8, 5},
    {2, 49, "PAN_FLIPPED", 4, 1},
    {2, 50, "TILT_FLIPPED", 4, 1},
    {2, 51, "CAM_FLIPPED", 4, 1},
    {2, 52, "AUTO_FLIPPING", 4, 1},
    {2, 53, "PT_PRESET_MOVE", 4, 1},
    {2, 54, "AUTO_FOCUS", 4, 1},
    {2, 55, "AUTO_IRIS", 4, 1},
    {2, 56, "BACKLIGHT", 4, 1},
    {2, 57, "IR_CUT_FILTER", 4, 1},
    {2, 58, "OVERVIEW_MODE", 4, 1},
    {3, 59, "MIN_PAN", 4, 1},
    {3, 60, "MAX_PAN", 4, 1},
    {3, 61, "MIN_TILT", 4, 1},
    {3, 62, "MAX_TILT", 4, 1},
    {3, 63, "MIN_ZOOM", 4, 1},
    {3, 64, "MAX_ZOOM", 4, 1},
    {3, 65, "MIN_IRIS", 4, 1},
    {3, 66, "MAX_IRIS", 4, 1},
    {3, 67, "MIN_FOCUS", 4, 1},
    {3, 68, "MAX_FOCUS", 4, 1},
    {3, 69, "MIN_FIELD_ANGLE", 4, 1},
    {3, 70, "MAX_FIELD_ANGLE", 4, 1},
    {3, 71, "MIN_BRIGHTNESS", 4, 1},
    {3, 72, "MAX_BRIGHTNESS", 4, 1},
};

struct StatusCacheKey : testing::TestWithParam<Key> {
  FakeStore store;
  SyslogCapture log;
};
INSTANTIATE_TEST_SUITE_P(All, StatusCacheKey, testing::ValuesIn(keys),
                         [](const auto &info) { return info.param.name; });

TEST_P(StatusCacheKey, IsBoundWithItsNameSizeAndType) {
  const auto &key = GetParam();
  gint64 value = 0x1122334455667788;
  const auto handle = set_up(key.group, 3, 1);
  ASSERT_TRUE(add(handle, key.param, &value));
  ASSERT_NE(handle->params[0], nullptr);
  EXPECT_EQ(handle->params[0]->key, key.name);
  EXPECT_EQ(handle->params[0]->size, key.size);
  EXPECT_EQ(handle->params[0]->value, &value);
  EXPECT_EQ(handle->params[0]->type, key.type);

  ASSERT_TRUE(update(handle));
  const auto bytes = std::string(reinterpret_cast<const char *>(&value), key.size);
  EXPECT_EQ(store.value(handle->name, key.name), (StoredValue{key.name, key.type, bytes}));
  value = 0;
  ASSERT_TRUE(fetch(handle));
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(&value), sizeof value), bytes + std::string(8 - key.size, '\0'));
  EXPECT_EQ(log.lines(), Lines{});
}

// --- adding -----------------------------------------------------------------------------------------------------

TEST_F(StatusCache, OneMoreThanTheCapacityIsRefused) {
  gint32 value = 0;
  const auto handle = set_up(limit, 9, 3);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(add(handle, 59, &value)) << "even the same one again";
  EXPECT_EQ(log.lines(), Lines{});
  EXPECT_FALSE(add(handle, 60, &value));
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, "Could not add parameter 60. No space left in group PTZ_LIMIT_IS9!"}}));
  EXPECT_EQ(handle->count, 3);
  EXPECT_TRUE(update(handle));
}

TEST_F(StatusCache, TheCapacityIsLookedAtBeforeTheGroup) {
  gint32 value = 0;
  EXPECT_FALSE(add(set_up(preset, 2, 0), 47, &value));
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, "Could not add parameter 47. No space left in group PTZ_PRESET_IS2!"}}));
}

TEST_F(StatusCache, NothingCanBeBoundToAPresetGroupAndThatIsNotLogged) {
  gint32 value = 0;
  const auto handle = set_up(preset, 2, 5);
  for (const int param : {47, 48, 0, 49, -1}) EXPECT_FALSE(add(handle, param, &value));
  EXPECT_EQ(handle->count, 0);
  EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(StatusCache, AHandleWithAnotherGroupIsRefused) {
  gint32 value = 0;
  const auto handle = set_up(limit, 2, 5);
  for (const int group : {4, -1}) {
    handle->group = group;
    const SyslogCapture one;
    EXPECT_FALSE(add(handle, 59, &value));
    EXPECT_EQ(one.lines(), (Lines{{LOG_ERR, "Could not add parameter to status cache group. No such group " +
                                                std::to_string(group) + "!"}}));
  }
  EXPECT_EQ(handle->count, 0);
}

TEST_F(StatusCache, ARefusedAddLeavesNothingBehind) {
  gint32 value = 0;
  const auto handle = set_up(position, 2, 2);
  EXPECT_FALSE(add(handle, 49, &value));
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, "Could not add parameter to group 0. No such parameter 49!"}}));
  EXPECT_EQ(handle->count, 0);
  EXPECT_EQ(handle->params[0], nullptr) << "freeing the handle would free it again";
  EXPECT_TRUE(add(handle, 0, &value));
  EXPECT_FALSE(add(handle, 59, &value));
  EXPECT_EQ(handle->params[1], nullptr);
}

TEST_F(StatusCache, EveryCallMindsAMissingHandle) {
  gint32 value = 0;
  EXPECT_FALSE(add({}, 12, &value));
  EXPECT_FALSE(update({}));
  EXPECT_FALSE(fetch({}));
  ptz_status_cache_free_group(nullptr);
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, "Could not add parameter 12. No group setup!"},
                                {LOG_ERR, "Could not update status cache. No group setup!"},
                                {LOG_ERR, "Could not fetch status cache. No group setup!"}}));
  EXPECT_TRUE(store.calls.empty());
}

// --- updates and fetches ----------------------------------------------------------------------------------------

TEST_F(StatusCache, ValuesAreWrittenInTheOrderInWhichTheyWereBound) {
  store.groups["PTZ_LIMIT_IS5"] = {};
  gint32 a = 1, b = 2, c = 3;
  const auto handle = set_up(limit, 5, 4);
  ASSERT_TRUE(add(handle, 64, &a) && add(handle, 59, &b) && add(handle, 70, &c));
  EXPECT_TRUE(update(handle));
  ASSERT_EQ(store.order(), "set");
  EXPECT_EQ(store.calls[0].values,
            (std::vector{stored("MAX_ZOOM", 1, 1), stored("MIN_PAN", 1, 2), stored("MAX_FIELD_ANGLE", 1, 3)}));
  EXPECT_EQ(store.calls[0].addresses, (std::vector<void *>{&a, &b, &c}));
  a = 10;
  EXPECT_TRUE(update(handle));
  EXPECT_EQ(store.number<gint32>("PTZ_LIMIT_IS5", "MAX_ZOOM"), 10);
}

TEST_F(StatusCache, AFetchReadsIntoTheCallersVariables) {
  store.groups["PTZ_LIMIT_IS5"].values = {{"MIN_PAN", stored("MIN_PAN", 1, -17)},
                                          {"MAX_PAN", stored("MAX_PAN", 1, 18)}};
  Bound bound(limit, 59, 2, 5);
  EXPECT_TRUE(fetch(bound.handle));
  ASSERT_EQ(store.order(), "get");
  EXPECT_EQ(store.calls[0].name, "PTZ_LIMIT_IS5");
  EXPECT_EQ(store.calls[0].mode, 0);
  EXPECT_EQ(bound.values[0], -17);
  EXPECT_EQ(bound.values[1], 18);
  EXPECT_EQ(bound.handle->capacity, 2);
  EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(StatusCache, AnUpdateThatCanNeitherWriteNorMakeTheGroupSaysWhy) {
  Bound bound(limit, 59, 1, 1);
  store.answer(Store::set, -1, ENOENT);
  store.answer(Store::create, -5, ENOSPC);
  EXPECT_FALSE(update(bound.handle));
  EXPECT_EQ(store.order(), "set create");
  EXPECT_EQ(log.lines(),
            (Lines{{LOG_ERR, "Could not create status cache group PTZ_LIMIT_IS5. " + error_text(ENOSPC) + "!"}}));
  EXPECT_TRUE(update(bound.handle)) << "the handle stays usable";
}

TEST_F(StatusCache, AnUpdateThatCannotWriteToTheNewGroupSaysWhy) {
  Bound bound(limit, 59, 1, 1);
  store.answer(Store::set, -1, ENOENT);
  store.answer(Store::set, -1, EACCES);
  EXPECT_FALSE(update(bound.handle));
  EXPECT_EQ(store.order(), "set create set");
  EXPECT_EQ(
      log.lines(),
      (Lines{{LOG_ERR, "Could not set status cache parameter group PTZ_LIMIT_IS5. " + error_text(EACCES) + "!"}}));
  EXPECT_TRUE(update(bound.handle)) << "the handle stays usable";
}

TEST_F(StatusCache, WhateverAStoreReturnsThatIsNotNegativeIsSuccess) {
  Bound bound(limit, 59, 1, 1);
  store.answer(Store::set, 17);
  EXPECT_TRUE(update(bound.handle));
  EXPECT_EQ(store.order(), "set");
  store.answer(Store::set, -1, ENOENT);
  store.answer(Store::create, 4);
  store.answer(Store::set, 1);
  EXPECT_TRUE(update(bound.handle));
}

TEST_F(StatusCache, AfterAFetchThatFoundLessThanIsBoundTheHandleIsRefused) {
  Bound bound(limit, 59, 5, 5);
  store.answer(Store::get, 3);
  EXPECT_TRUE(fetch(bound.handle));
  EXPECT_EQ(bound.handle->capacity, 3);
  EXPECT_FALSE(update(bound.handle));
  EXPECT_FALSE(fetch(bound.handle));
  EXPECT_FALSE(add(bound.handle, 65, &bound.values[6]));
  EXPECT_EQ(store.order(), "get");
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, "Could not update status cache. To many parameters in group PTZ_LIMIT_IS5!"},
                                {LOG_ERR, "Could not fetch status cache. To many parameters in group PTZ_LIMIT_IS5!"},
                                {LOG_ERR, "Could not add parameter 65. No space left in group PTZ_LIMIT_IS5!"}}));
}

TEST_F(StatusCache, AFailedFetchSaysWhyAndLeavesANegativeCapacity) {
  Bound bound(limit, 59, 2, 5);
  store.answer(Store::get, -7, EIO);
  EXPECT_FALSE(fetch(bound.handle));
  EXPECT_EQ(bound.handle->capacity, -7);
  EXPECT_FALSE(update(bound.handle));
  EXPECT_EQ(log.lines(),
            (Lines{{LOG_ERR, "Could not get status cache parameter group PTZ_LIMIT_IS5. " + error_text(EIO) + "!"},
                   {LOG_ERR, "Could not update status cache. To many parameters in group PTZ_LIMIT_IS5!"}}));
}

TEST_F(StatusCache, AFetchThatFoundWhatIsBoundLeavesNoSpaceForMore) {
  Bound bound(limit, 59, 2, 5);
  ASSERT_TRUE(update(bound.handle));
  EXPECT_TRUE(fetch(bound.handle));
  EXPECT_TRUE(update(bound.handle));
  EXPECT_FALSE(add(bound.handle, 61, &bound.values[3]));
}

TEST_F(StatusCache, AStoreThatClaimsMoreThanTheHandleHoldsNeverLetsAnAddOverrunIt) {
  Bound bound(limit, 59, 2, 2);
  store.answer(Store::get, std::numeric_limits<int>::max());
  EXPECT_TRUE(fetch(bound.handle));
  EXPECT_EQ(bound.handle->capacity, std::numeric_limits<int>::max());
  EXPECT_FALSE(add(bound.handle, 61, &bound.values[2]));
  EXPECT_EQ(bound.handle->count, 2);
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, "Could not add parameter 61. No space left in group PTZ_LIMIT_IS5!"}}));
  EXPECT_TRUE(update(bound.handle));
}

TEST_F(StatusCache, ARoomierAnswerOfTheStoreMakesRoomUpToWhatTheHandleWasSetUpFor) {
  Bound bound(limit, 59, 1, 3);
  store.answer(Store::get, 100);
  EXPECT_TRUE(fetch(bound.handle));
  EXPECT_TRUE(add(bound.handle, 60, &bound.values[1]));
  EXPECT_TRUE(add(bound.handle, 61, &bound.values[2]));
  EXPECT_FALSE(add(bound.handle, 62, &bound.values[3]));
}

TEST_F(StatusCache, AHandleWithoutParametersStillCallsTheStore) {
  const auto handle = set_up(position, 1, 4);
  EXPECT_TRUE(update(handle));
  EXPECT_TRUE(fetch(handle));
  EXPECT_EQ(handle->capacity, 0);
  EXPECT_EQ(store.order(), "set create set get");
  EXPECT_TRUE(store.calls[0].values.empty());
}

TEST_F(StatusCache, FreeingAHandleLeavesTheVariables) {
  gint32 value = 4711;
  {
    const auto handle = set_up(limit, 1, 2);
    EXPECT_TRUE(add(handle, 59, &value));
  }
  EXPECT_EQ(value, 4711);
  EXPECT_TRUE(store.calls.empty());
}

// --- defaults ---------------------------------------------------------------------------------------------------

struct StatusCacheDefaults : StatusCache {
  std::vector<StoredValue> published(int group) {
    EXPECT_TRUE(ptz_status_cache_create_group(static_cast<PTZSCGroup>(group), 4));
    EXPECT_EQ(store.order(), "set create set");
    EXPECT_EQ(log.lines(), Lines{});
    return store.calls.back().values;
  }
};

TEST_F(StatusCacheDefaults, OfThePosition) {
  timespec before{}, after{};
  clock_gettime(CLOCK_MONOTONIC, &before);
  auto values = published(position);
  clock_gettime(CLOCK_MONOTONIC, &after);
  const auto &addresses = store.calls.back().addresses;
  ASSERT_EQ(values.size(), 47U);

  EXPECT_EQ(store.calls[1].name, "PTZ_POSITION_IS4");
  EXPECT_EQ(store.calls[1].size, 1536U);
  const auto time = store.number<PTZStatusCacheTime>("PTZ_POSITION_IS4", "TIME_VAL").value_or(PTZStatusCacheTime{});
  const auto microseconds = [](gint64 seconds, gint64 rest) { return seconds * 1'000'000 + rest; };
  EXPECT_GE(microseconds(time.seconds, time.fraction), microseconds(before.tv_sec, before.tv_nsec / 1000));
  EXPECT_LE(microseconds(time.seconds, time.fraction), microseconds(after.tv_sec, after.tv_nsec / 1000));
  EXPECT_LT(time.fraction, 1'000'000U);

  std::vector<StoredValue> expected;
  for (const auto &key : keys) {
    if (key.group != position) continue;
    if (key.type == 2) expected.push_back(stored(key.name, 2, key.param == 6 ? 1.0F : 0.0F));
    if (key.type == 4) expected.push_back(stored(key.name, 4, time));
    if (key.type == 5) expected.push_back(stored(key.name, 5, gint64{0}));
    if (key.type != 1) continue;
    gint32 value = 0;
    if (key.param == 7 || key.param == 12 || key.param == 13 || key.param == 14) value = 1;
    if (key.param >= 15 && key.param <= 20) value = -1;
    if (key.param == 21) value = 30;
    expected.push_back(stored(key.name, 1, value));
  }
  EXPECT_EQ(values, expected);
  for (int param = 15; param <= 20; ++param) EXPECT_EQ(addresses[param], addresses[15]) << param;
  for (int param = 23; param <= 46; ++param) EXPECT_EQ(addresses[param], addresses[23]) << param;
}

TEST_F(StatusCacheDefaults, OfTheFlags) {
  EXPECT_EQ(published(various),
            (std::vector{stored("PAN_FLIPPED", 1, 0), stored("TILT_FLIPPED", 1, 0), stored("CAM_FLIPPED", 1, 0),
                         stored("PT_PRESET_MOVE", 1, 0), stored("AUTO_FLIPPING", 1, 0), stored("AUTO_FOCUS", 1, 0),
                         stored("AUTO_IRIS", 1, 0), stored("BACKLIGHT", 1, 0), stored("IR_CUT_FILTER", 1, 0)}));
  EXPECT_EQ(store.calls[1].name, "PTZ_VARIOUS_IS4");
  auto addresses = store.calls.back().addresses;
  std::sort(addresses.begin(), addresses.end());
  EXPECT_EQ(std::unique(addresses.begin(), addresses.end()), addresses.end()) << "each has a variable of its own";
}

TEST_F(StatusCacheDefaults, OfTheLimits) {
  EXPECT_EQ(
      published(limit),
      (std::vector{stored("MIN_PAN", 1, -180), stored("MAX_PAN", 1, 180), stored("MIN_TILT", 1, -180),
                   stored("MAX_TILT", 1, 180), stored("MIN_ZOOM", 1, 1), stored("MAX_ZOOM", 1, 19999),
                   stored("MIN_IRIS", 1, 1), stored("MAX_IRIS", 1, 9999), stored("MIN_FOCUS", 1, 1),
                   stored("MAX_FOCUS", 1, 9999), stored("MIN_FIELD_ANGLE", 1, 1), stored("MAX_FIELD_ANGLE", 1, 9999),
                   stored("MIN_BRIGHTNESS", 1, 1), stored("MAX_BRIGHTNESS", 1, 9999)}));
  EXPECT_EQ(store.calls[1].name, "PTZ_LIMIT_IS4");
}

TEST_F(StatusCacheDefaults, OfPresetsThereAreNone) {
  EXPECT_FALSE(ptz_status_cache_create_group(preset, 4));
  EXPECT_TRUE(store.calls.empty());
  EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(StatusCacheDefaults, OfAnUnknownGroupThereAreNone) {
  for (const int group : {-1, 4}) {
    const SyslogCapture one;
    EXPECT_FALSE(ptz_status_cache_create_group(static_cast<PTZSCGroup>(group), 4));
    EXPECT_EQ(one.lines(),
              (Lines{{LOG_ERR, "Could not create status cache group. No such group " + std::to_string(group) + "!"}}));
  }
  EXPECT_TRUE(store.calls.empty());
}

TEST_F(StatusCacheDefaults, ReplaceWhatWasThere) {
  store.groups["PTZ_LIMIT_IS4"].values = {{"MAX_ZOOM", stored("MAX_ZOOM", 1, 5)}};
  EXPECT_TRUE(ptz_status_cache_create_group(limit, 4));
  EXPECT_EQ(store.order(), "set");
  EXPECT_EQ(store.number<gint32>("PTZ_LIMIT_IS4", "MAX_ZOOM"), 19999);
}

TEST_F(StatusCacheDefaults, ThatCannotBeWrittenAreLoggedOnly) {
  for (const int group : {position, various, limit}) {
    const SyslogCapture one;
    store.answer(Store::set, -1, ENOENT);
    store.answer(Store::create, -1, EROFS);
    EXPECT_TRUE(ptz_status_cache_create_group(static_cast<PTZSCGroup>(group), 4));
    EXPECT_EQ(one.lines(), (Lines{{LOG_ERR, "Could not create status cache group " + kinds[group].prefix + "4. " +
                                                error_text(EROFS) + "!"}}));
  }
}

}  // namespace
