// tests/torture/power_cut.h - a folder on a disk that loses its power.
//
// The calls of this process on files of the folder are interposed and recorded. At a chosen call the folder is brought
// into a state in which a power cut could leave it, and the process ends: of the writes and changes of size since a
// file's last flush, any may be lost, in parts of 512 bytes; so may its time; the last changes of names since the
// folder's last flush may be lost. Inodes stay the same.
#pragma once
#include <cstdint>
#include <string>

namespace torture {

constexpr int status_after_cut = 99;

// The files that the folder has now are durable. `spare` is a folder on the same file system. The process ends before
// the call of number `last_call`, or never if that is negative; `seed` decides what is lost.
void begin_recording(const std::string &folder, const std::string &spare, long last_call, std::uint64_t seed);

// The number of calls until now.
long recorded_calls();

// The call of this number, and each one after it that writes more than was given back since, fails with ENOSPC, also if
// it overwrites; -1 for none.
void fill_disk_at(long call);

}  // namespace torture
