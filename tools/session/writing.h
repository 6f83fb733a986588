// Files written whole or not at all: each is written to a temporary file beside its place,
// flushed to the disk and renamed into place, so a full disk, a failure or an interrupt never
// leaves part of a file under its name, nor spoils the file that stood there.
#pragma once

#include <functional>
#include <string>

namespace session {

// Why a file cannot be written, for a user: "no such directory", "permission denied", "disk
// full", or the system's own text.
std::string why_not(int error_number);

// What stands in the way of writing `path`: empty when nothing does, else the reason ("no such
// directory 'out'", "it exists", ...); `exists` says whether the reason is only that the
// file is there. With `try_directory` the directory is tried by making and removing a file in
// it, so a read-only or full file system is caught too (once a directory is enough).
struct Obstacle {
  std::string why;
  bool exists = false;
};
Obstacle obstacle_to_writing(const std::string &path, bool overwrite, bool try_directory = true);

// Writes `path` whole: `fill` writes the temporary file at the path it is given (and throws to
// give up), which is then flushed and renamed over `path` (never over an existing one unless
// `overwrite`). On any failure the temporary file is removed and Failure says why.
void write_whole(const std::string &path, bool overwrite,
                 const std::function<void(const std::string &temporary)> &fill);
// The same for bytes already made.
void write_whole(const std::string &path, bool overwrite, const void *data, size_t size);

}  // namespace session
