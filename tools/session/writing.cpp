// Writing aside and renaming into place. The temporary file is hidden beside its target, in the
// same directory and so on the same file system, where a rename is atomic.
#include "writing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "session.h"

namespace session {

namespace fs = std::filesystem;

namespace {

std::string directory_of(const std::string &path) {
  const fs::path dir = fs::path(path).parent_path();
  return dir.empty() ? "." : dir.string();
}

[[noreturn]] void refuse(const std::string &path, int error_number) {
  throw Failure{"cannot write '" + path + "': " + why_not(error_number)};
}

// Makes a new hidden file beside `target`, named in `*path`: its descriptor, or -1 with errno.
int create_beside(const std::string &target, std::string *path) {
  const fs::path p(target);
  for (int attempt = 0; attempt < 100; ++attempt) {
    *path = (p.parent_path() / ("." + p.filename().string() + ".part" + std::to_string(getpid()) +
                                "-" + std::to_string(attempt)))
                .string();
    const int fd = open(path->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

// A temporary file beside `target`, removed unless it has been renamed into place.
class Temporary {
 public:
  explicit Temporary(const std::string &target) : fd_(create_beside(target, &path_)) {
    if (fd_ < 0) {
      path_.clear();
      refuse(target, errno);
    }
  }
  ~Temporary() {
    if (fd_ >= 0) close(fd_);
    if (!path_.empty()) unlink(path_.c_str());
  }
  Temporary(const Temporary &) = delete;
  Temporary &operator=(const Temporary &) = delete;

  const std::string &path() const { return path_; }

  void write_all(const std::string &target, const void *data, size_t size) {
    const auto *at = static_cast<const char *>(data);
    while (size > 0) {
      const ssize_t n = write(fd_, at, size);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) refuse(target, errno);
      at += n;
      size -= size_t(n);
    }
  }

  // Flushed to the disk, then renamed; a disk that fills only at the flush is caught here.
  void commit(const std::string &target, bool overwrite) {
    if (fsync(fd_) != 0) refuse(target, errno);
    const int closed = close(fd_);
    fd_ = -1;
    if (closed != 0) refuse(target, errno);
    if (overwrite) {
      if (rename(path_.c_str(), target.c_str()) != 0) refuse(target, errno);
    } else if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) !=
               0) {
      // A file system that cannot rename without replacing can still link without replacing.
      if (errno != EINVAL && errno != ENOSYS) refuse(target, errno);
      if (link(path_.c_str(), target.c_str()) != 0) refuse(target, errno);
      unlink(path_.c_str());
    }
    path_.clear();
    // The rename itself reaches the disk with its directory.
    const int dir = open(directory_of(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
      fsync(dir);
      close(dir);
    }
  }

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace

std::string why_not(int error_number) {
  switch (error_number) {
    case ENOENT:
      return "no such directory";
    case EACCES:
    case EPERM:
      return "permission denied";
    case ENOSPC:
      return "disk full";
    case EDQUOT:
      return "disk quota exceeded";
    case EROFS:
      return "read-only file system";
    case EEXIST:
      return "the file exists";
    default:
      return std::strerror(error_number);
  }
}

Obstacle obstacle_to_writing(const std::string &path, bool overwrite, bool try_directory) {
  if (path.empty()) return {"no file name", false};
  const std::string dir = directory_of(path);
  struct stat st {};
  if (stat(dir.c_str(), &st) != 0)
    return {
        errno == ENOENT ? "no such directory '" + dir + "'" : "'" + dir + "': " + why_not(errno),
        false};
  if (!S_ISDIR(st.st_mode)) return {"'" + dir + "' is not a directory", false};
  if (stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return {"it is a directory", false};
    if (!overwrite) return {"it exists", true};
  }
  if (!try_directory) return {};
  std::string probe;
  const int fd = create_beside(path, &probe);
  if (fd < 0) return {why_not(errno) + " in '" + dir + "'", false};
  close(fd);
  unlink(probe.c_str());
  return {};
}

void write_whole(const std::string &path, bool overwrite,
                 const std::function<void(const std::string &temporary)> &fill) {
  Temporary t(path);
  fill(t.path());
  t.commit(path, overwrite);
}

void write_whole(const std::string &path, bool overwrite, const void *data, size_t size) {
  Temporary t(path);
  t.write_all(path, data, size);
  t.commit(path, overwrite);
}

}  // namespace session
