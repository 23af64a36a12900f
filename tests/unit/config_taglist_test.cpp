#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "config/taglist.h"

namespace {

namespace fs = std::filesystem;
using namespace config;

// A fresh directory under the test temporary directory, removed afterwards.
struct TempDirectory {
  fs::path path;
  explicit TempDirectory(const std::string& name)
      : path(fs::path(::testing::TempDir()) / ("taglist_" + name)) {
    fs::remove_all(path);
    fs::create_directories(path);
  }
  ~TempDirectory() { fs::remove_all(path); }
  std::string file(const std::string& name) const { return (path / name).string(); }
};

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
      {"A=\"\"", "", true, "A", ""},         {"A=", "", true, "A", ""},
      {"A=\"p=q\"", "", true, "A", "p=q"},  {"A=\"say \"hi\"\"", "", true, "A", "say \"hi\""},
      {"=v", "", true, "", "v"},             {"A", "", false, "", ""},
      {"", "", false, "", ""},               {"\r\n", "", false, "", ""},
      {"WLAN0_SSID=x", "WLAN", true, "WLAN0_SSID", "x"}, {"ATH0_RADIO=0", "WLAN", false, "", ""},
  };
  for (const Case& c : cases) {
    TagitemPtr item = parse_tagitem_line(c.line, c.prefix);
    ASSERT_EQ(item != nullptr, c.yields) << c.line;
    if (!item) continue;
    EXPECT_EQ(item->key, c.key) << c.line;
    EXPECT_EQ(item->value, c.value) << c.line;
    EXPECT_EQ(item->spare, 0);
  }
}

TEST(TaglistLoad, FileRulesInSortedAndUnsortedLists) {
  TempDirectory dir("load");
  const std::string path = dir.file("conf");
  write_file(path, "# comment\r\nB=\"first\"\r\nE=\"\"\r\nB=\"second\"\r\n\r\na=1\r\n");
  for (int sorted : {0, 1}) {
    TaglistPtr list = load_taglist_ex(path, sorted, nullptr);
    EXPECT_EQ(list->count, 3) << sorted;
    EXPECT_EQ(get_taglist_default(list.get(), "B", "d"), "first");
    EXPECT_EQ(exist_taglist(list.get(), "E"), 1);
    EXPECT_EQ(get_taglist_default(list.get(), "E", "d"), "d");
    EXPECT_EQ(get_taglist_default_dup(list.get(), "a", "d"), "1");
    EXPECT_EQ(get_taglist_default_dup(list.get(), "Z", "d"), "d");
  }
  TaglistPtr missing = load_taglist_ex(dir.file("none"), 1, nullptr);
  ASSERT_NE(missing, nullptr);
  EXPECT_EQ(missing->count, 0);
  EXPECT_EQ(get_taglist_default_ex(missing.get(), "", "X"), "");
  EXPECT_EQ(get_taglist_default_ex(nullptr, "x", "X"), "x");
  EXPECT_EQ(exist_taglist(nullptr, "X"), 0);
  EXPECT_EQ(dump_taglist_string(nullptr), "");

  write_file(path, "WLAN0_SSID=\"s\"\nATH0_RADIO=\"0\"\n");
  TaglistPtr filtered = load_taglist_ex(path, 1, "WLAN");
  EXPECT_EQ(dump_taglist_string(filtered.get()), "WLAN0_SSID=\"s\"\n");
  free_taglist(std::move(filtered));
}

TEST(TaglistLoad, LongLineIsTakenInPieces) {
  TempDirectory dir("long");
  const std::string path = dir.file("conf");
  write_file(path, "A=" + std::string(8189, 'x') + "C=\"tail\"\nB=2\n");
  TaglistPtr list = load_taglist_ex(path, 1, nullptr);
  EXPECT_EQ(get_taglist_default(list.get(), "A", "").size(), 8189u);
  EXPECT_EQ(get_taglist_default(list.get(), "C", ""), "tail");
  EXPECT_EQ(get_taglist_default(list.get(), "B", ""), "2");
}

TEST(TaglistBuffer, LineBreakRules) {
  TaglistPtr list = load_taglist_buffer("A=1\r\n\r\n\nB=2\nC=3", 1);
  EXPECT_EQ(dump_taglist_string(list.get()), "A=\"1\"\nB=\"2\"\n");
  EXPECT_EQ(load_taglist_buffer("\nA=1\n", 0)->count, 0);
  EXPECT_EQ(load_taglist_buffer("A=1", 0)->count, 0);
  TaglistPtr cut = load_taglist_buffer("A=" + std::string(9000, 'x') + "\nB=2\n", 0);
  EXPECT_EQ(get_taglist_default(cut.get(), "A", "").size(), 8189u);
  EXPECT_EQ(get_taglist_default(cut.get(), "B", ""), "2");
}

TEST(TaglistDump, SortedOrderAndStreamMatchString) {
  TaglistPtr list = make_list(1, {{"a", "1"}, {"B", "2"}, {"B", "3"}});
  const std::string want = "B=\"2\"\na=\"1\"\n";
  EXPECT_EQ(dump_taglist_string(list.get()), want);
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* stream = open_memstream(&text, &size);
  dump_taglist(list.get(), stream);
  std::fclose(stream);
  EXPECT_EQ(std::string(text, size), want);
  std::free(text);
}

TEST(TaglistSearch, BinarySearchInsertionPoints) {
  TaglistPtr list = make_list(1, {{"b", ""}, {"d", ""}, {"f", ""}, {"h", ""}});
  const std::pair<const char*, int> cases[] = {{"a", 0}, {"b", 0}, {"c", 1}, {"d", 1}, {"e", 2},
                                               {"f", 2}, {"g", 3}, {"h", 3}, {"i", 4}};
  for (const auto& [key, want] : cases) {
    const tagitem probe{key, "", 0};
    EXPECT_EQ(__bsearch_taglist_pos(&probe, list->items.data(), 0, list->count - 1,
                                    sizeof(TagitemPtr), __tagitem_tag_compare_func),
              want)
        << key;
    EXPECT_EQ(__bsearch_taglist_pos(&probe, list->items.data(), 0, -1, sizeof(TagitemPtr),
                                    __tagitem_tag_compare_func),
              0);
  }
  EXPECT_EQ(__search_taglist(list.get(), "f"), 2);
  EXPECT_EQ(__search_taglist(list.get(), "e"), -1);
  EXPECT_EQ(__search_taglist(list.get(), "z"), -1);
}

TEST(TaglistInsert, FirstWinsReplaceWinsAndCapacityGrows) {
  for (int sorted : {0, 1}) {
    TaglistPtr list = make_list(sorted, {{"K", "first"}});
    EXPECT_EQ(insert_taglist(list.get(), create_tagitem("K", "second")), 0);
    EXPECT_EQ(get_taglist_default(list.get(), "K", ""), "first");
    EXPECT_EQ(replace_taglist(list.get(), create_tagitem("K", "new")), 1);
    EXPECT_EQ(get_taglist_default(list.get(), "K", ""), "new");
    EXPECT_EQ(list->count, 1);
  }
  TaglistPtr list = make_list(1, {});
  const std::pair<int, int> steps[] = {{1024, 1024}, {1025, 1280}, {1280, 1280}, {1281, 1536}};
  for (const auto& [count, capacity] : steps) {
    while (list->count < count) {
      insert_taglist(list.get(), create_tagitem(std::to_string(list->count), "v"));
    }
    EXPECT_EQ(list->capacity, capacity) << count;
  }
  EXPECT_EQ(__search_taglist(list.get(), "1000"), 4);  // "0" < "1" < "10" < "100" < "1000"
}

TEST(TaglistRemove, UnsortedMovesLastItemIntoTheHole) {
  TaglistPtr unsorted = make_list(0, {{"A", "1"}, {"B", "2"}, {"C", "3"}});
  EXPECT_EQ(remove_taglist(unsorted.get(), "A"), 1);
  EXPECT_EQ(dump_taglist_string(unsorted.get()), "C=\"3\"\nB=\"2\"\n");
  EXPECT_EQ(remove_taglist_key(unsorted.get(), "A"), 0);
  TaglistPtr sorted = make_list(1, {{"A", "1"}, {"B", "2"}, {"C", "3"}});
  EXPECT_EQ(remove_taglist(sorted.get(), "A%d", 0), 0);
  EXPECT_EQ(remove_taglist(sorted.get(), "%s", "A"), 1);
  EXPECT_EQ(dump_taglist_string(sorted.get()), "B=\"2\"\nC=\"3\"\n");
  EXPECT_EQ(__remove_taglist_pos(sorted.get(), 2), 0);
}

TEST(TaglistPattern, FormatsOnlyPatternsWithPercent) {
  const std::string long_key(kTaglistMaxKey, 'k');
  TaglistPtr list = make_list(1, {{"ATH3_RADIO", "1"}, {"PLAIN", "p"}, {long_key.c_str(), "L"}});
  EXPECT_EQ(get_taglist_default_ex(list.get(), "x", "ATH%d_RADIO", 3), "1");
  EXPECT_EQ(get_taglist_default_ex(list.get(), "x", "ATH%d_RADIO", 4), "x");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-extra-args"
  EXPECT_EQ(get_taglist_default_ex(list.get(), "x", "PLAIN", 7), "p");
#pragma GCC diagnostic pop
  const std::string longer = long_key + std::string(200, 'k');
  EXPECT_EQ(exist_taglist(list.get(), "%s", longer.c_str()), 1);  // cut to 255
  EXPECT_EQ(exist_taglist_key(list.get(), longer), 0);
  EXPECT_EQ(exist_taglist_key(list.get(), "ATH%d_RADIO"), 0);
}

TEST(TaglistPattern, UnsortedInsertReadsKeyAsPatternWithoutFormatting) {
  TaglistPtr list = make_list(0, {{"A%B", "1"}});
  EXPECT_EQ(insert_taglist(list.get(), create_tagitem("A%%B", "2")), 0);  // "%%" reads "%"
  EXPECT_EQ(insert_taglist(list.get(), create_tagitem("A%dB", "3")), 1);
  EXPECT_EQ(insert_taglist(list.get(), create_tagitem("A%dB", "4")), 0);
  EXPECT_EQ(list->count, 2);
}

TEST(TaglistSave, ModesAndSymlink) {
  TempDirectory dir("save");
  TaglistPtr list = make_list(1, {{"A", "1"}});
  const std::string want = "A=\"1\"\n";
  const std::string fresh = dir.file("fresh");
  EXPECT_EQ(save_taglist(list.get(), fresh, 1), 0);
  EXPECT_FALSE(fs::exists(fresh));
  EXPECT_EQ(save_taglist(list.get(), fresh, 3), 0);
  EXPECT_FALSE(fs::exists(fresh));
  EXPECT_EQ(save_taglist(list.get(), fresh, 0), 1);  // atomic fails, direct writes
  EXPECT_EQ(read_file(fresh), want);
  EXPECT_EQ(save_taglist(list.get(), dir.file("direct"), 2), 1);
  EXPECT_EQ(read_file(dir.file("direct")), want);
  EXPECT_EQ(save_taglist(list.get(), dir.file("no/such/dir"), 0), 0);

  const std::string target = dir.file("target"), link = dir.file("link");
  write_file(target, "OLD=\"x\"\n");
  fs::create_symlink(target, link);
  EXPECT_EQ(save_taglist(list.get(), link, 1), 1);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(read_file(target), want);
  struct stat st {};
  ASSERT_EQ(::stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path), fs::directory_iterator()), 4);
}

}  // namespace
