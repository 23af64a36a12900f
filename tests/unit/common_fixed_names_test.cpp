// Fixed names under /tmp: what someone else planted there never blocks the
// daemon, is never written through and is moved out of the way.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "common/files.h"

namespace {

struct Planted {
  const char* what;
  std::function<void(const std::string&, const std::string&)> plant;  // path, link target
  bool needs_root;
};

std::vector<std::string> names_in(const std::string& dir) {
  std::vector<std::string> out;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (dirent* e = ::readdir(d))
      if (e->d_name[0] != '.') out.emplace_back(e->d_name);
    ::closedir(d);
  }
  return out;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

const Planted kPlanted[] = {
    {"FIFO", [](const std::string& p, const std::string&) { ASSERT_EQ(::mkfifo(p.c_str(), 0666), 0); }, false},
    {"symbolic link", [](const std::string& p, const std::string& t) { ASSERT_EQ(::symlink(t.c_str(), p.c_str()), 0); },
     false},
    {"writable directory with a file",
     [](const std::string& p, const std::string&) {
       ASSERT_EQ(::mkdir(p.c_str(), 0700), 0);
       ASSERT_EQ(::chmod(p.c_str(), 01777), 0);
       std::ofstream(p + "/inside") << "x";
     },
     false},
    {"directory of another user",
     [](const std::string& p, const std::string&) {
       ASSERT_EQ(::mkdir(p.c_str(), 0700), 0);
       ASSERT_EQ(::chown(p.c_str(), 65534, 65534), 0);
     },
     true},
    {"file of another user",
     [](const std::string& p, const std::string&) {
       std::ofstream(p) << "7\n";
       ASSERT_EQ(::chown(p.c_str(), 65534, 65534), 0);
     },
     true},
};

class FixedNames : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = ::testing::TempDir() + "/fixed_names.XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
    dir_ = tmpl;
    target_ = dir_ + "/target";
    std::ofstream(target_) << "keep\n";
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }
  std::string dir_, target_;
};

TEST_F(FixedNames, PlantedThingsNeverBlockAreNeverFollowedAndMoveAside) {
  const std::string name = dir_ + "/name";
  for (const Planted& p : kPlanted) {
    if (p.needs_root && ::geteuid() != 0) continue;
    SCOPED_TRACE(p.what);
    p.plant(name, target_);
    struct stat planted {};
    ASSERT_EQ(::lstat(name.c_str(), &planted), 0);
    const bool regular = S_ISREG(planted.st_mode);
    // Only a regular file is opened (a plain open of the FIFO would block);
    // nothing is written through the link.
    int fd = common::open_regular_nonblocking(name, O_RDONLY);
    EXPECT_EQ(fd >= 0, regular);
    if (fd >= 0) ::close(fd);
    fd = common::open_regular_nonblocking(name, O_WRONLY | O_CREAT | O_APPEND);
    EXPECT_EQ(fd >= 0, regular);
    if (fd >= 0) ::close(fd);

    ASSERT_TRUE(common::clear_fixed_name(name));
    EXPECT_NE(::access(name.c_str(), F_OK), 0);
    EXPECT_EQ(slurp(target_), "keep\n");
    // A directory is kept beside the name, content and all.
    std::vector<std::string> moved;
    for (const std::string& n : names_in(dir_))
      if (n.rfind("name.planted.", 0) == 0) moved.push_back(dir_ + "/" + n);
    EXPECT_EQ(moved.size(), S_ISDIR(planted.st_mode) ? 1u : 0u);
    for (const std::string& m : moved) std::system(("rm -rf '" + m + "'").c_str());

    // The same thing where a private directory belongs.
    p.plant(name, target_);
    ASSERT_TRUE(common::claim_private_dir(name));
    struct stat st {};
    ASSERT_EQ(::lstat(name.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode) && st.st_uid == ::geteuid() && (st.st_mode & 07777) == 0700);
    EXPECT_TRUE(names_in(name).empty());
    EXPECT_TRUE(common::claim_private_dir(name));  // ours now: kept as it is
    std::system(("rm -rf '" + dir_ + "'/name*").c_str());
  }
}

TEST_F(FixedNames, OwnRegularFileIsUsedAndKept) {
  const std::string name = dir_ + "/own";
  int fd = common::open_regular_nonblocking(name, O_WRONLY | O_CREAT | O_APPEND);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(common::write_all(fd, "120\n"));
  ::close(fd);
  EXPECT_TRUE(common::clear_fixed_name(name));
  EXPECT_EQ(slurp(name), "120\n");
  EXPECT_TRUE(common::clear_fixed_name(dir_ + "/missing"));
  // A file is not a directory of ours: it is removed and the directory made.
  EXPECT_TRUE(common::claim_private_dir(name));
  struct stat st {};
  ASSERT_EQ(::lstat(name.c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
}

}  // namespace
