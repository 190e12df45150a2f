// Loading a settings file of 10,000 keys, and looking up its values: the settings stores beside a plain GKeyFile.
#include <benchmark/benchmark.h>
#include <glib/gstdio.h>
#include <ptz.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "handles.h"
#include "ratios.h"
#include "temp_dir.h"

namespace {

using KeyFile = std::unique_ptr<GKeyFile, ptz_test::FreeWith<g_key_file_unref>>;
using ptz_bench::best;
using ptz_test::Text;

constexpr int group_count = 100, keys_each = 100, look_ups = 100'000;

void require(bool condition) {
  if (!condition) std::abort();
}

void write_file(const std::string &path, const std::string &text) {
  require(g_file_set_contents(path.c_str(), text.data(), static_cast<gssize>(text.size()), nullptr));
}

struct Files {
  ptz_test::TempDir dir;
  std::string groups = dir.file("settings.conf"), shell = dir.file("settings.sh");

  Files() {
    std::string text, shell_text;
    for (int group = 0; group < group_count; ++group) {
      text += "[Preset" + std::to_string(group) + "]\n";
      for (int key = 0; key < keys_each; ++key) {
        const auto name = "Position" + std::to_string(key), value = std::to_string(group * key);
        text += name + "=" + value + "\n";
        shell_text += "PRESET" + std::to_string(group) + "_POSITION" + std::to_string(key) + "=" + value + "\n";
      }
    }
    write_file(groups, text);
    write_file(shell, shell_text);
  }
};

const Files &files() {
  static const Files files;
  return files;
}

// Each key once, in an order of its own: what was looked up last is of no help.
struct Place {
  int index, number;
  std::string group, key, shell_key;
};

const std::vector<Place> &places() {
  static const auto shuffled = [] {
    std::vector<Place> all;
    for (int group = 0; group < group_count; ++group) {
      for (int key = 0; key < keys_each; ++key) {
        const auto g = std::to_string(group), k = std::to_string(key);
        all.push_back({group, key, "Preset" + g, "Position" + k, "PRESET" + g + "_POSITION" + k});
      }
    }
    std::ranges::shuffle(all, std::mt19937(1));
    return all;
  }();
  return shuffled;
}

KeyFile plain_key_file(const std::string &path) {
  KeyFile key_file(g_key_file_new());
  require(g_key_file_load_from_file(key_file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr));
  return key_file;
}

void load_plain(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(plain_key_file(files().groups));
}

void load_key_file_store(benchmark::State &state) {
  const PTZSettingsFile list[] = {{files().groups.c_str(), TRUE}, {}};
  for (auto _ : state) require(ptz_settings_load_config_gkf(list, nullptr));
}

void load_parsed_store(benchmark::State &state) {
  const PTZSettingsFile list[] = {{files().groups.c_str(), TRUE}, {}};
  for (auto _ : state) require(ptz_settings_load_config(list, nullptr));
}

// The shell store's file as the key file of one group that the store makes of it.
std::string shell_as_group() {
  gchar *read = nullptr;
  require(g_file_get_contents(files().shell.c_str(), &read, nullptr, nullptr));
  const Text text(read);
  const auto path = files().dir.file("group.conf");
  write_file(path, std::string("[FAKESECTION]\n") + text.get());
  return path;
}

void load_plain_group(benchmark::State &state) {
  const auto path = shell_as_group();
  for (auto _ : state) benchmark::DoNotOptimize(plain_key_file(path));
}

void load_shell_store(benchmark::State &state) {
  const PTZSettingsFile list[] = {{files().shell.c_str(), TRUE}, {}};
  for (auto _ : state) require(ptz_settings_shell_load_config(list));
}

void load_once() {
  static const bool loaded = [] {
    const PTZSettingsFile groups[] = {{files().groups.c_str(), TRUE}, {}},
                          shell[] = {{files().shell.c_str(), TRUE}, {}};
    return ptz_settings_load_config_gkf(groups, nullptr) && ptz_settings_shell_load_config(shell);
  }();
  require(loaded);
}

template <typename LookUp>
void look_up_each(benchmark::State &state, const LookUp &look_up) {
  load_once();
  const auto &all = places();
  std::size_t next = 0;
  for (auto _ : state) {
    look_up(all[next]);
    if (++next == all.size()) next = 0;
  }
}

// A value of a plain key file under a mutex, as a program without the stores would keep one.
class PlainStore {
  GMutex mutex_ = {};
  KeyFile key_file_;

 public:
  explicit PlainStore(KeyFile key_file) : key_file_(std::move(key_file)) {}
  void get(const char *group, const char *key) {
    g_mutex_lock(&mutex_);
    const Text value(g_key_file_get_value(key_file_.get(), group, key, nullptr));
    g_mutex_unlock(&mutex_);
    benchmark::DoNotOptimize(value.get());
  }
};

void get_plain(benchmark::State &state) {
  PlainStore store(plain_key_file(files().groups));
  look_up_each(state, [&store](const Place &place) { store.get(place.group.c_str(), place.key.c_str()); });
}

void get_plain_indexed(benchmark::State &state) {
  PlainStore store(plain_key_file(files().groups));
  look_up_each(state, [&store](const Place &place) {
    const Text group(g_strdup_printf("Preset%d", place.index));
    store.get(group.get(), place.key.c_str());
  });
}

void get_plain_path(benchmark::State &state) {
  PlainStore store(plain_key_file(files().groups));
  look_up_each(state, [&store](const Place &place) {
    const Text group(g_strdup_printf("Preset%d", place.index)), key(g_strdup_printf("Position%d", place.number));
    store.get(group.get(), key.get());
  });
}

void get_plain_shell(benchmark::State &state) {
  PlainStore store(plain_key_file(shell_as_group()));
  look_up_each(state, [&store](const Place &place) {
    const Text key(g_strdup_printf("%s", place.shell_key.c_str()));
    store.get("FAKESECTION", key.get());
  });
}

void get_string(benchmark::State &state) {
  look_up_each(state, [](const Place &place) {
    const Text value(ptz_settings_get_string("Preset", place.index, place.key.c_str()));
    benchmark::DoNotOptimize(value.get());
  });
}

void get_custom_string(benchmark::State &state) {
  look_up_each(state, [](const Place &place) {
    const Text value(ptz_settings_get_custom_string(place.group.c_str(), place.key.c_str()));
    benchmark::DoNotOptimize(value.get());
  });
}

void get_vp(benchmark::State &state) {
  look_up_each(state, [](const Place &place) {
    const Text value(ptz_settings_get_vp("root.Preset%d.Position%d", place.index, place.number));
    benchmark::DoNotOptimize(value.get());
  });
}

template <auto get, typename Value>
void get_indexed(benchmark::State &state) {
  look_up_each(state, [](const Place &place) {
    Value value;
    benchmark::DoNotOptimize(get("Preset", place.index, place.key.c_str(), &value));
  });
}

template <auto get, typename Value>
void get_named(benchmark::State &state) {
  look_up_each(state, [](const Place &place) {
    Value value;
    benchmark::DoNotOptimize(get(place.group.c_str(), place.key.c_str(), &value));
  });
}

void get_boolean(benchmark::State &state) { get_indexed<ptz_settings_get_boolean, gboolean>(state); }
void get_int64(benchmark::State &state) { get_indexed<ptz_settings_get_int64, gint64>(state); }
void get_int(benchmark::State &state) { get_indexed<ptz_settings_get_int, gint32>(state); }
void get_custom_boolean(benchmark::State &state) { get_named<ptz_settings_get_custom_boolean, gboolean>(state); }
void get_custom_int64(benchmark::State &state) { get_named<ptz_settings_get_custom_int64, gint64>(state); }
void get_custom_int(benchmark::State &state) { get_named<ptz_settings_get_custom_int, gint32>(state); }

void get_int_vp(benchmark::State &state) {
  look_up_each(state, [](const Place &place) {
    gint32 value;
    benchmark::DoNotOptimize(ptz_settings_get_int_vp(&value, "root.Preset%d.Position%d", place.index, place.number));
  });
}

void get_shell_string(benchmark::State &state) {
  look_up_each(state, [](const Place &place) {
    const Text value(ptz_settings_shell_get_string("%s", place.shell_key.c_str()));
    benchmark::DoNotOptimize(value.get());
  });
}

void get_shell_boolean(benchmark::State &state) {
  look_up_each(state, [](const Place &place) {
    gboolean value;
    benchmark::DoNotOptimize(ptz_settings_shell_get_boolean(&value, "%s", place.shell_key.c_str()));
  });
}

void has_group(benchmark::State &state) {
  look_up_each(state,
               [](const Place &place) { benchmark::DoNotOptimize(ptz_settings_has_group("Preset", place.index)); });
}

#define LOAD(name) BENCHMARK(name)->Unit(benchmark::kMillisecond)->ComputeStatistics("best", best)
#define LOOK_UP(name) BENCHMARK(name)->Iterations(look_ups)->ComputeStatistics("best", best)

LOAD(load_plain);
LOAD(load_key_file_store);
LOAD(load_parsed_store);
LOAD(load_plain_group);
LOAD(load_shell_store);
LOOK_UP(get_plain);
LOOK_UP(get_plain_indexed);
LOOK_UP(get_plain_path);
LOOK_UP(get_plain_shell);
LOOK_UP(get_string);
LOOK_UP(get_custom_string);
LOOK_UP(get_vp);
LOOK_UP(get_boolean);
LOOK_UP(get_custom_boolean);
LOOK_UP(get_int64);
LOOK_UP(get_custom_int64);
LOOK_UP(get_int);
LOOK_UP(get_custom_int);
LOOK_UP(get_int_vp);
LOOK_UP(get_shell_string);
LOOK_UP(get_shell_boolean);
LOOK_UP(has_group);

constexpr ptz_bench::Comparison comparisons[] = {
    {"Loading the key-file store beside a GKeyFile", "load_key_file_store", "load_plain", {.at_most = 1.3}},
    {"Loading the parsed store beside a GKeyFile", "load_parsed_store", "load_plain", {.at_most = 1.3}},
    {"Loading the shell store beside a GKeyFile of one group",
     "load_shell_store",
     "load_plain_group",
     {.at_most = 1.3}},
    {"get_custom_string beside get_plain", "get_custom_string", "get_plain", {.at_most = 1.5}},
    {"get_custom_boolean beside get_plain", "get_custom_boolean", "get_plain", {.at_most = 1.5}},
    {"get_custom_int64 beside get_plain", "get_custom_int64", "get_plain", {.at_most = 1.5}},
    {"get_custom_int beside get_plain", "get_custom_int", "get_plain", {.at_most = 1.5}},
    {"get_string beside get_plain_indexed", "get_string", "get_plain_indexed", {.at_most = 1.5}},
    {"get_boolean beside get_plain_indexed", "get_boolean", "get_plain_indexed", {.at_most = 1.5}},
    {"get_int64 beside get_plain_indexed", "get_int64", "get_plain_indexed", {.at_most = 1.5}},
    {"get_int beside get_plain_indexed", "get_int", "get_plain_indexed", {.at_most = 1.5}},
    {"get_vp beside get_plain_path", "get_vp", "get_plain_path", {.at_most = 1.5}},
    {"get_int_vp beside get_plain_path", "get_int_vp", "get_plain_path", {.at_most = 1.5}},
    {"get_shell_string beside get_plain_shell", "get_shell_string", "get_plain_shell", {.at_most = 1.5}},
    {"get_shell_boolean beside get_plain_shell", "get_shell_boolean", "get_plain_shell", {.at_most = 1.5}},
    {"has_group beside get_plain", "has_group", "get_plain", {.at_most = 1.5}},
    {"get_string beside get_plain", "get_string", "get_plain"},
    {"get_vp beside get_plain", "get_vp", "get_plain"},
    {"get_shell_string beside get_plain", "get_shell_string", "get_plain"},
};

}  // namespace

int main(int argc, char **argv) { return ptz_bench::run_and_compare(argc, argv, comparisons); }
