#include "param_workload.h"

#include <random>

#include "torture.h"

namespace torture {

void prepare_workload(const TreeFolder &folder) {
  wait_for(start([&] {
    set("root.Given.A", "1");
    set("root.A.P1", "given");
    return backup(folder.file("given")) ? 0 : 1;
  }));
}

bool operate(const TreeFolder &folder, int number, std::uint64_t seed, int &error) {
  std::mt19937_64 random(seed * 1000 + static_cast<std::uint64_t>(number));
  const auto chance = random() % 20;
  const std::string value = std::to_string(number), index = std::to_string(random() % 8);
  if (chance < 7) {
    error = set("root.A.P" + index, value);
  } else if (chance < 11) {
    error = set("root.N" + index + ".P" + value, value);
  } else if (chance < 13) {
    error = create("root.D", -1);
  } else if (chance < 14) {
    error = remove_group("root.D.D" + std::to_string(random() % 2));
    if (error == -2) error = 0;
  } else if (chance < 16) {
    // Pages enough for a flush without a sync.
    error =
        set("root.Long.P" + index, std::string(4096 * (chance == 14 ? 30 : 110), static_cast<char>('a' + number % 26)));
  } else if (chance < 19) {
    error = sync_tree();
    return true;
  } else {
    error = restore(folder.file("given")) ? 0 : 1;
    return true;
  }
  return false;
}

std::string short_content() {
  int error = 0;
  const std::string text = content(error);
  if (error != 0) return "error " + std::to_string(error);
  std::string shortened;
  for (std::size_t at = 0; at < text.size();) {
    const auto end = text.find('\n', at);
    const auto line = text.substr(at, end - at);
    shortened += line.size() < 100 ? line : line.substr(0, 40) + "..." + std::to_string(line.size());
    shortened += '\n';
    at = end + 1;
  }
  return shortened;
}

std::vector<std::string> contents_after_each(const TreeFolder &folder, std::uint64_t seed) {
  std::vector<std::string> contents = {""};
  folder.empty();
  for (int i = 0; i < operations; ++i) {
    wait_for(start([&] {
      int error = 0;
      operate(folder, i, seed, error);
      const auto found = short_content();
      write_file(folder.file("content"), found);
      return 0;
    }));
    contents.push_back(read_file(folder.file("content")));
  }
  return contents;
}

}  // namespace torture
