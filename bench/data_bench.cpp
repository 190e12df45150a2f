// Dynamical properties beside the property of an ordinary GObject, and how the cost of one item grows with their
// number.
#include <benchmark/benchmark.h>
#include <ptz.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "handles.h"
#include "ratios.h"

namespace {

using ptz_test::Object;

// ---- a changed integer property with one handler

struct Ordinary {
  GObject parent_instance;
  gint zoom;
};
struct OrdinaryClass {
  GObjectClass parent_class;
};
G_DEFINE_TYPE(Ordinary, ordinary, G_TYPE_OBJECT)

void ordinary_init(Ordinary *) {}

void ordinary_class_init(OrdinaryClass *klass) {
  auto *object_class = G_OBJECT_CLASS(klass);
  object_class->set_property = [](GObject *object, guint, const GValue *value, GParamSpec *) {
    reinterpret_cast<Ordinary *>(object)->zoom = g_value_get_int(value);
  };
  // What nobody can read is not notified.
  object_class->get_property = [](GObject *object, guint, GValue *value, GParamSpec *) {
    g_value_set_int(value, reinterpret_cast<Ordinary *>(object)->zoom);
  };
  g_object_class_install_property(object_class, 1,
                                  g_param_spec_int("zoom", "", "", G_MININT, G_MAXINT, 0, G_PARAM_READWRITE));
}

gint notifications;

// A measurement of what was not done is worth nothing.
void require_notifications(benchmark::State &state, gint expected) {
  if (notifications != expected) state.SkipWithError("not every change was notified");
}

void set_ordinary(benchmark::State &state) {
  const Object<GObject> object(G_OBJECT(g_object_new(ordinary_get_type(), nullptr)));
  g_signal_connect(object.get(), "notify::zoom",
                   G_CALLBACK(+[](GObject *, GParamSpec *, gpointer) { ++notifications; }), nullptr);
  gint zoom = notifications = 0;
  for (auto _ : state) g_object_set(object.get(), "zoom", ++zoom, nullptr);
  require_notifications(state, zoom);
}

void set_integer(PTZDynamicalProperties *properties, const char *name, gint content) {
  GValue *value = g_new0(GValue, 1);
  g_value_init(value, G_TYPE_INT);
  g_value_set_int(value, content);
  ptz_dynamical_properties_set(properties, name, value);
}

void count_notification(PTZDynamicalProperties *, const char *, gpointer) { ++notifications; }

void set_dynamical(benchmark::State &state) {
  const Object<PTZDynamicalProperties> properties(ptz_dynamical_properties_new());
  g_signal_connect(properties.get(), "notify_change", G_CALLBACK(count_notification), nullptr);
  gint zoom = notifications = 0;
  for (auto _ : state) set_integer(properties.get(), "zoom", ++zoom);
  require_notifications(state, zoom);
}

void set_dynamical_unchanged(benchmark::State &state) {
  const Object<PTZDynamicalProperties> properties(ptz_dynamical_properties_new());
  g_signal_connect(properties.get(), "notify_change", G_CALLBACK(count_notification), nullptr);
  notifications = 0;
  for (auto _ : state) set_integer(properties.get(), "zoom", 1);
  require_notifications(state, 1);
}

// ---- growth: the time of one item among so many

std::vector<std::string> names_of(int count) {
  std::vector<std::string> names;
  for (int number = 0; number < count; ++number) names.push_back("Parameter" + std::to_string(number));
  return names;
}

// Look-ups in another order than that in which the items lie in memory.
std::vector<std::string> shuffled(std::vector<std::string> names) {
  std::ranges::shuffle(names, std::mt19937(1));  // NOLINT: the same order in every run
  return names;
}

using Items = Object<PTZParameterItemArray>;

Items array_of(const std::vector<std::string> &names) {
  Items array(ptz_parameter_item_array_new("group"));
  PTZParameterItem item = {};
  for (const std::string &name : names) {
    item.name = const_cast<char *>(name.c_str());
    ptz_parameter_item_array_append(array.get(), &item);
  }
  return array;
}

template <int count>
void append_item(benchmark::State &state) {
  const auto names = names_of(count);
  while (state.KeepRunningBatch(count)) array_of(names);
}

template <int count>
void copy_item(benchmark::State &state) {
  const Items array = array_of(names_of(count));
  while (state.KeepRunningBatch(count)) Items(ptz_parameter_item_array_copy(array.get()));
}

template <int count>
void find_item(benchmark::State &state) {
  const auto names = names_of(count);
  const auto asked = shuffled(names);
  const Items array = array_of(names);
  while (state.KeepRunningBatch(count)) {
    for (const std::string &name : asked) {
      benchmark::DoNotOptimize(ptz_parameter_item_array_get_by_name(array.get(), name.c_str()));
    }
  }
}

template <int count>
void add_property(benchmark::State &state) {
  const auto names = names_of(count);
  while (state.KeepRunningBatch(count)) {
    const Object<PTZDynamicalProperties> properties(ptz_dynamical_properties_new());
    for (const std::string &name : names) set_integer(properties.get(), name.c_str(), 1);
  }
}

template <int count>
void find_property(benchmark::State &state) {
  const auto names = names_of(count);
  const auto asked = shuffled(names);
  const Object<PTZDynamicalProperties> properties(ptz_dynamical_properties_new());
  for (const std::string &name : names) set_integer(properties.get(), name.c_str(), 1);
  while (state.KeepRunningBatch(count)) {
    for (const std::string &name : asked) {
      benchmark::DoNotOptimize(ptz_dynamical_properties_get(properties.get(), name.c_str()));
    }
  }
}

using ptz_bench::best;
BENCHMARK(set_ordinary)->ComputeStatistics("best", best);
BENCHMARK(set_dynamical)->ComputeStatistics("best", best);
BENCHMARK(set_dynamical_unchanged)->ComputeStatistics("best", best);
#define BENCHMARK_GROWTH(name)                             \
  BENCHMARK(name<100>)->ComputeStatistics("best", best);   \
  BENCHMARK(name<1'000>)->ComputeStatistics("best", best); \
  BENCHMARK(name<10'000>)->ComputeStatistics("best", best)
BENCHMARK_GROWTH(append_item);
BENCHMARK_GROWTH(copy_item);
BENCHMARK_GROWTH(find_item);
BENCHMARK_GROWTH(add_property);
BENCHMARK_GROWTH(find_property);

constexpr ptz_bench::Comparison comparisons[] = {
    {"A changed dynamical property beside an ordinary one", "set_dynamical", "set_ordinary", {.at_most = 1.5}},
    {"An unchanged dynamical property beside an ordinary one", "set_dynamical_unchanged", "set_ordinary"},
    {"An item appended to 1,000 beside one of 100", "append_item<1'000>", "append_item<100>"},
    {"An item appended to 10,000 beside one of 100", "append_item<10'000>", "append_item<100>"},
    {"An item copied of 1,000 beside one of 100", "copy_item<1'000>", "copy_item<100>"},
    {"An item copied of 10,000 beside one of 100", "copy_item<10'000>", "copy_item<100>"},
    {"An item found among 1,000 beside one of 100", "find_item<1'000>", "find_item<100>"},
    {"An item found among 10,000 beside one of 100", "find_item<10'000>", "find_item<100>"},
    {"A property added to 1,000 beside one of 100", "add_property<1'000>", "add_property<100>"},
    {"A property added to 10,000 beside one of 100", "add_property<10'000>", "add_property<100>"},
    {"A property found among 1,000 beside one of 100", "find_property<1'000>", "find_property<100>"},
    {"A property found among 10,000 beside one of 100", "find_property<10'000>", "find_property<100>"},
};

}  // namespace

int main(int argc, char **argv) { return ptz_bench::run_and_compare(argc, argv, comparisons); }
