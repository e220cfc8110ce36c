#include "core/safe_directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace snanode {

bool prepare_own_directory(const std::string &path, mode_t mode, std::string &problem) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) {
    std::error_code ignored;
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent, ignored);
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
      problem = "cannot create " + path + ": " + std::strerror(errno);
      return false;
    }
    if (::lstat(path.c_str(), &info) != 0) {
      problem = path + ": " + std::strerror(errno);
      return false;
    }
  }
  if (S_ISLNK(info.st_mode)) {
    problem = path + " is a symbolic link, not a directory";
    return false;
  }
  if (!S_ISDIR(info.st_mode)) {
    problem = path + " is not a directory";
    return false;
  }
  if (info.st_uid != ::geteuid() && info.st_uid != 0) {
    problem = path + " belongs to uid " + std::to_string(info.st_uid) + ", not to this user";
    return false;
  }
  if ((info.st_mode & S_IWOTH) != 0) {
    problem = path + " is writable by every user";
    return false;
  }
  return true;
}

}  // namespace snanode
