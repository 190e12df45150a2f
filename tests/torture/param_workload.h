// tests/torture/param_workload.h - a sequence of operations on a parameter tree, the same in each run of a seed.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "tree.h"

namespace torture {

constexpr int operations = 40;

// Makes the file that the sequence restores.
void prepare_workload(const TreeFolder &folder);
// The operation of a number. Returns whether it makes the tree durable.
bool operate(const TreeFolder &folder, int number, std::uint64_t seed, int &error);
// The tree, with long values cut.
std::string short_content();
// The tree before the first operation and after each one.
std::vector<std::string> contents_after_each(const TreeFolder &folder, std::uint64_t seed);

}  // namespace torture
