#pragma once
// A directory of the test process's own: made with mkdtemp under $TMPDIR (or
// /tmp) on first use and removed when the process ends. Tests put their files
// here, never under fixed names in /tmp, so that a run as another user after
// a run as root passes and two runs at once do not collide.

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace test_support {

struct OwnTempDir {
  std::string path;
  OwnTempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "clientmgr_unit.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) ::abort();
    path = pattern;
  }
  ~OwnTempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

inline const std::string& own_temp_dir() {
  static const OwnTempDir dir;
  return dir.path;
}

}  // namespace test_support
