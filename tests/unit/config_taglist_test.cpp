#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "config/taglist.h"
#include "test_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace config;

// A fresh, empty directory under the process's own temporary directory.
std::string fresh_dir(const std::string& name) {
  const fs::path path = fs::path(test_support::own_temp_dir()) / ("taglist_" + name);
  fs::remove_all(path);
  fs::create_directories(path);
  return path.string() + "/";
}

void write_file(const std::string& path, const std::string& text) { std::ofstream(path) << text; }
std::string read_file(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path).rdbuf();
  return out.str();
}

TaglistPtr make_list(int sorted, std::initializer_list<std::pair<const char*, const char*>> kv) {
  TaglistPtr list = create_taglist();
  if (sorted) sort_taglist(list.get());
  for (const auto& [k, v] : kv) insert_taglist(list.get(), create_tagitem(k, v));
  return list;
}

TEST(TaglistParse, LineRules) {
  struct Case { std::string_view line, prefix; bool yields; std::string_view key, value; };
  const Case cases[] = {
      {"#A=1", "", false, "", ""},          {" #A=1", "", true, " #A", "1"},
      {"A=\"x y\"\r\n", "", true, "A", "x y"}, {"A=x y\n\r\n", "", true, "A", "x y"},
      {"A=\"x y", "", true, "A", "x y"},    {"A=x y\"", "", true, "A", "x y"},
      {"A=", "", true, "A", ""},             {"A=\"p=q\"", "", true, "A", "p=q"},
      {"A=\"say \"hi\"\"", "", true, "A", "say \"hi\""}, {"A", "", false, "", ""},
      {"\r\n", "", false, "", ""},
      {"WLAN0_SSID=x", "WLAN", true, "WLAN0_SSID", "x"}, {"ATH0_RADIO=0", "WLAN", false, "", ""},
  };
  for (const Case& c : cases) {
    TagitemPtr item = parse_tagitem_line(c.line, c.prefix);
    ASSERT_EQ(item != nullptr, c.yields) << c.line;
    if (item) {
      EXPECT_EQ(item->key + "=" + item->value, std::string(c.key) + "=" + std::string(c.value));
    }
  }
}

TEST(TaglistLoad, FileAndBufferRules) {
  const std::string dir = fresh_dir("load"), path = dir + "conf";
  write_file(path, "# comment\r\nB=\"first\"\r\nE=\"\"\r\nB=\"second\"\r\n\r\na=1\r\n");
  for (int sorted : {0, 1}) {
    TaglistPtr list = load_taglist_ex(path, sorted, nullptr);
    EXPECT_EQ(list->count, 3) << sorted;
    EXPECT_EQ(get_taglist_default(list.get(), "B", "d"), "first");
    EXPECT_EQ(exist_taglist(list.get(), "E"), 1);  // present, yet read as missing
    EXPECT_EQ(get_taglist_default(list.get(), "E", "d"), "d");
    EXPECT_EQ(get_taglist_default_dup(list.get(), "a", "d"), "1");
  }
  EXPECT_EQ(load_taglist_ex(dir + "none", 1, nullptr)->count, 0);
  write_file(path, "WLAN0_SSID=\"s\"\nATH0_RADIO=\"0\"\n");
  EXPECT_EQ(dump_taglist_string(load_taglist_ex(path, 1, "WLAN").get()), "WLAN0_SSID=\"s\"\n");
  // A long file line is taken in pieces.
  write_file(path, "A=" + std::string(8189, 'x') + "C=\"tail\"\nB=2\n");
  EXPECT_EQ(get_taglist_default(load_taglist_ex(path, 1, nullptr).get(), "C", ""), "tail");
  // A buffer stops at an empty line and drops a last line without newline.
  EXPECT_EQ(dump_taglist_string(load_taglist_buffer("A=1\r\n\r\n\nB=2\nC=3", 1).get()),
            "A=\"1\"\nB=\"2\"\n");
}

TEST(TaglistInsert, OrderFirstWinsReplaceCapacityAndRemoval) {
  EXPECT_EQ(dump_taglist_string(make_list(1, {{"a", "1"}, {"B", "2"}, {"B", "3"}}).get()),
            "B=\"2\"\na=\"1\"\n");
  for (int sorted : {0, 1}) {
    TaglistPtr list = make_list(sorted, {{"K", "first"}});
    EXPECT_EQ(insert_taglist(list.get(), create_tagitem("K", "second")), 0);
    EXPECT_EQ(get_taglist_default(list.get(), "K", ""), "first");
    EXPECT_EQ(replace_taglist(list.get(), create_tagitem("K", "new")), 1);
    EXPECT_EQ(get_taglist_default(list.get(), "K", ""), "new");
  }
  TaglistPtr list = make_list(1, {});
  const std::pair<int, int> steps[] = {{1024, 1024}, {1025, 1280}, {1280, 1280}, {1281, 1536}};
  for (const auto& [count, capacity] : steps) {
    while (list->count < count) insert_taglist(list.get(), create_tagitem(std::to_string(list->count), "v"));
    EXPECT_EQ(list->capacity, capacity) << count;
  }
  EXPECT_EQ(__search_taglist(list.get(), "1000"), 4);  // "0" < "1" < "10" < "100" < "1000"
  // Unsorted removal moves the last item into the hole.
  TaglistPtr unsorted = make_list(0, {{"A", "1"}, {"B", "2"}, {"C", "3"}});
  EXPECT_EQ(remove_taglist(unsorted.get(), "A"), 1);
  EXPECT_EQ(dump_taglist_string(unsorted.get()), "C=\"3\"\nB=\"2\"\n");
}

TEST(TaglistSave, ModesAndSymlink) {
  const std::string dir = fresh_dir("save"), want = "A=\"1\"\n", fresh = dir + "fresh";
  TaglistPtr list = make_list(1, {{"A", "1"}});
  EXPECT_EQ(save_taglist(list.get(), fresh, 1), 0);  // atomic needs an existing file
  EXPECT_EQ(save_taglist(list.get(), fresh, 3), 0);  // no such mode
  EXPECT_FALSE(fs::exists(fresh));
  EXPECT_EQ(save_taglist(list.get(), fresh, 0), 1);  // atomic fails, direct writes
  EXPECT_EQ(read_file(fresh), want);
  EXPECT_EQ(save_taglist(list.get(), dir + "direct", 2), 1);
  EXPECT_EQ(read_file(dir + "direct"), want);
  EXPECT_EQ(save_taglist(list.get(), dir + "no/such/dir", 0), 0);

  const std::string target = dir + "target", link = dir + "link";
  write_file(target, "OLD=\"x\"\n");
  fs::create_symlink(target, link);
  EXPECT_EQ(save_taglist(list.get(), link, 1), 1);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(read_file(target), want);
  struct stat st {};
  ASSERT_EQ(::stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

}  // namespace
