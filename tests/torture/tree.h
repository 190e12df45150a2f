// tests/torture/tree.h - a parameter tree of a torture program: its content, its folder, what it logs.
#pragma once
#include <syslog.h>

#include <cstdint>
#include <string>
#include <vector>

namespace torture {

// A folder with a tree, which is removed with all that is in it.
class TreeFolder {
  std::string path_;

 public:
  TreeFolder();
  TreeFolder(const TreeFolder &) = delete;
  ~TreeFolder();
  void empty() const;
  [[nodiscard]] std::string file(const std::string &name) const { return path_ + "/" + name; }
  [[nodiscard]] std::string database() const { return file("state/params.db"); }
  // Names in the folder of the database that are not its own, one blank between them.
  [[nodiscard]] std::string left_over_files() const;
};

// Each returns the error of the service.
int set(const std::string &path, const std::string &value);
int get(const std::string &path, std::string &value);
int create(const std::string &group, int number);
int remove_group(const std::string &group);
int sync_tree();
bool backup(const std::string &file);
bool restore(const std::string &file);

// All groups and parameters, one per line; empty with the error set if the tree cannot be read.
std::string content(int &error);

// The same of the database without its log, which another process would not find after a power cut.
std::string content_of_file(const std::string &database, const std::string &scratch);

// What this process and its children have logged since the last call, by priority.
struct Logged {
  int errors = 0, warnings = 0;
  std::string last;
};
Logged take_log();
void begin_log();

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &bytes);

}  // namespace torture
