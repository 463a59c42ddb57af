/* temp_folder: a folder for one test. The destructor removes it with everything in it. */
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

class temp_folder {
 public:
  temp_folder() {
    char name[] = "/tmp/mivo_test_XXXXXX";
    path_ = mkdtemp(name);
  }
  temp_folder(const temp_folder&) = delete;
  temp_folder& operator=(const temp_folder&) = delete;
  ~temp_folder() { std::filesystem::remove_all(path_); }

  const std::string& path() const { return path_; }

  /* Writes the file `name` in the folder and returns its path. Replaces a file of that name. */
  std::string write(const std::string& name, const std::string& bytes) const {
    const std::string path = path_ + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }

 private:
  std::string path_;
};

/* Whether this process has the file open. */
inline bool is_open(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code is_gone;  // the descriptor of the listing itself
    if (std::filesystem::read_symlink(entry.path(), is_gone) == path) return true;
  }
  return false;
}

/* Makes the file look modified at that moment, given in seconds since the epoch and nanoseconds. */
inline void set_file_time(const std::string& path, int64_t seconds, int64_t nanoseconds = 0) {
  const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}
