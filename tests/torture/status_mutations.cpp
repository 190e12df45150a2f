// Mutated files of status groups, opened by the real store. Half of them are mutated before the process maps them, the
// others while they are mapped. Each read has to return values that were written together, or a stated error; each
// write has to succeed and be readable, or to fail with a stated error.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include "platform/status_store.h"
#include "temp_dir.h"
#include "torture.h"

namespace {

using Random = std::mt19937_64;

constexpr int states = 20, files_of_a_child = 100;
constexpr std::uint32_t group_size = 200;

struct Values {
  std::uint64_t number = 0, square = 0;
  char text[40] = {};
};

Values values_of(std::uint64_t number) {
  Values values = {number, number * number, {}};
  std::snprintf(values.text, sizeof values.text, "text of state %llu", static_cast<unsigned long long>(number));
  return values;
}

int set(const std::string &name, std::uint64_t number) {
  Values values = values_of(number);
  StatusStoreParam a = {"NUMBER", 8, &values.number, 1}, b = {"SQUARE", 8, &values.square, 2};
  StatusStoreParam c = {"TEXT", sizeof values.text, values.text, 3};
  // The layout changes now and then.
  char odd[16] = {};
  StatusStoreParam d = {"ODD", static_cast<guint32>(1 + number / 4 % 16), odd, 4};
  StatusStoreParam *list[] = {&a, &b, &c, &d, nullptr};
  errno = 0;
  return status_store_set_group(name.c_str(), list, 2) == 0 ? 0 : -errno;
}

int get(const std::string &name, Values &values) {
  StatusStoreParam a = {"NUMBER", 8, &values.number, 1}, b = {"SQUARE", 8, &values.square, 2};
  StatusStoreParam c = {"TEXT", sizeof values.text, values.text, 3};
  StatusStoreParam *list[] = {&a, &b, &c, nullptr};
  errno = 0;
  const int count = status_store_get_group(name.c_str(), list, 0);
  return count >= 0 ? count : -errno;
}

std::string read_file(const std::string &path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

void change_once(std::string &bytes, const std::string &other, Random &random) {
  const auto at = random() % bytes.size();
  const auto length = std::min<std::size_t>(1 + random() % 256, bytes.size() - at);
  constexpr std::uint64_t words[] = {0,         1,      7,          8,          9,          0xFF,
                                     0x7FFF,    0x8000, 0xFFFF,     0x7FFFFFFF, 0x80000000, 0xFFFFFFFF,
                                     ~0ULL - 1, ~0ULL,  1ULL << 62, 1ULL << 63};
  const auto word_at = at / 8 * 8;
  switch (random() % 8) {
    case 0:
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << random() % 8));
      break;
    case 1:
      bytes[at] = static_cast<char>(random());
      break;
    case 2: {
      const auto word = words[random() % std::size(words)];
      if (word_at + 8 <= bytes.size()) std::memcpy(&bytes[word_at], &word, 8);
      break;
    }
    case 3: {  // a small step of a number
      std::uint64_t word = 0;
      if (word_at + 8 > bytes.size()) break;
      std::memcpy(&word, &bytes[word_at], 8);
      word += random() % 17 - 8;
      std::memcpy(&bytes[word_at], &word, 8);
      break;
    }
    case 4:
      std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), length, '\0');
      break;
    case 5:  // from elsewhere in the file
      bytes.replace(at, length, bytes, random() % (bytes.size() - length + 1), length);
      break;
    case 6:  // from an older copy of the file
      bytes.replace(at, length, other, at, length);
      break;
    default:
      for (std::size_t i = at; i < at + length; ++i) bytes[i] = static_cast<char>(random());
  }
}

// The header, where a change has the most effect, is changed as often as all the rest.
std::string mutated(const std::string &original, const std::string &other, Random &random) {
  std::string bytes = original;
  const auto changes = 1 + random() % 4;
  for (std::uint64_t i = 0; i < changes; ++i) {
    if (random() % 2 == 0) {
      std::string header = bytes.substr(0, 320);
      change_once(header, other.substr(0, 320), random);
      bytes.replace(0, 320, header);
    } else {
      change_once(bytes, other, random);
    }
  }
  return bytes;
}

bool is_stated(int error) {
  return error == -ENOENT || error == -EBADMSG || error == -EIO || error == -EBUSY || error == -ENOSPC;
}

struct Counts {
  long read = 0, refused = 0, written = 0, write_refused = 0, bad = 0;
};

void check_read(const std::string &name, std::uint64_t latest, Counts &counts) {
  Values found;
  const int result = get(name, found);
  if (result < 0) {
    ++counts.refused;
    if (is_stated(result)) return;
    ++counts.bad;
    torture::note("read: %s", std::strerror(-result));
    return;
  }
  ++counts.read;
  const Values expected = values_of(found.number);
  const bool is_whole = result == 3 && found.number <= latest && found.square == expected.square &&
                        std::memcmp(found.text, expected.text, sizeof found.text) == 0;
  // A state without these keys was written first.
  if (is_whole || result == 0) return;
  ++counts.bad;
  torture::note("read: %d values, number %llu, text %.40s", result, static_cast<unsigned long long>(found.number),
                found.text);
}

void check_file(const std::string &name, std::uint64_t latest, Counts &counts) {
  check_read(name, latest, counts);
  const int result = set(name, latest + 1);
  if (result != 0) {
    ++counts.write_refused;
    if (!is_stated(result)) {
      ++counts.bad;
      torture::note("write: %s", std::strerror(-result));
    }
    return;
  }
  ++counts.written;
  Values found;
  const int again = get(name, found);
  // The reader maps the file again within a second; a size that does not match the mapped file is refused until then.
  if (again == 3 && found.number == latest + 1) return;
  ++counts.bad;
  torture::note("a write succeeded and is not read: %d, number %llu", again,
                static_cast<unsigned long long>(found.number));
}

void write_file(const std::string &path, const std::string &bytes, int flags) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | flags, 0600);
  if (fd < 0 || pwrite(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) std::abort();
  close(fd);
}

int check_batch(const std::string &folder, const std::string &original, const std::string &other, std::uint64_t seed,
                Counts &counts) {
  Random random(seed);
  for (int i = 0; i < files_of_a_child; ++i) {
    const std::string name = "M" + std::to_string(i), path = folder + "/" + name + ".status";
    std::string bytes = mutated(original, other, random);
    unlink(path.c_str());
    if (i % 2 == 0) {
      if (random() % 4 == 0) bytes.resize(random() % (2 * bytes.size()));
      write_file(path, bytes, O_TRUNC);
    } else {
      write_file(path, original, O_TRUNC);
      Values unused;
      if (get(name, unused) != 3 || set(name, states) != 0) std::abort();
      write_file(path, bytes, 0);
    }
    check_file(name, states, counts);
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const long files = torture::amount(argc, argv, "files", 10'000);
  const long seed = torture::amount(argc, argv, "seed", 1);
  const ptz_test::TempDir dir;
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir.path().c_str(), 1);
  std::string original, other;
  const int made = torture::wait_for(torture::start([&] {
    if (status_store_create_group("G", group_size, 0) != 0) return 1;
    for (int i = 0; i <= states; ++i) {
      if (set("G", static_cast<std::uint64_t>(i)) != 0) return 1;
      if (i == states - 3) std::ofstream(dir.file("other")) << read_file(dir.file("G.status"));
    }
    return 0;
  }));
  if (made != 0) return torture::finish(false, "no group could be made");
  original = read_file(dir.file("G.status"));
  other = read_file(dir.file("other"));
  auto *counts = torture::shared<Counts>();
  long signals = 0, tried = 0;
  for (; tried < files; tried += files_of_a_child) {
    const auto batch_seed = static_cast<std::uint64_t>(seed * 1'000'003 + tried);
    const int status = torture::wait_for(
        torture::start([&] { return check_batch(dir.path(), original, other, batch_seed, *counts); }));
    if (status == 0) continue;
    ++signals;
    torture::note("batch of seed %llu ended with %d", static_cast<unsigned long long>(batch_seed), status);
  }
  return torture::finish(signals == 0 && counts->bad == 0,
                         "%ld files: %ld signals, %ld wrong results; %ld reads gave values, %ld a stated error; %ld "
                         "writes succeeded, %ld gave a stated error",
                         tried, signals, counts->bad, counts->read, counts->refused, counts->written,
                         counts->write_refused);
}
