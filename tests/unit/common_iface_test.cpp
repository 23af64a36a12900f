#include <gtest/gtest.h>

#include "common/iface.h"

namespace {

TEST(InterfaceTable, ListedNamesOverridePlainOnes) {
  const auto table = common::parse_interface_table("ath0\nath1\r\nath4\n");
  EXPECT_EQ(common::interface_name_in(table, 2), "ath4");
  EXPECT_EQ(common::interface_index_in(table, "ath4"), 2);
  EXPECT_EQ(common::interface_index_in(table, "ath7"), 7) << "unlisted: the number in the name";
  EXPECT_EQ(common::interface_index_in(table, "eth0"), 0);
  EXPECT_EQ(common::interface_index_in(table, ""), 3) << "the first empty entry";
  EXPECT_EQ(common::interface_index_in(common::parse_interface_table(""), ""), 0);
  EXPECT_EQ(common::interface_name_in(table, 20), "ath20");
  EXPECT_EQ(common::interface_name_in(table, 3), "ath3") << "past the last line";
}

TEST(InterfaceTable, LongNamesAreCutAndSixteenLinesAtMost) {
  std::string text;
  for (int i = 0; i < 20; ++i) text += "wlan-interface-with-a-long-name-" + std::to_string(i) + "\n";
  const auto table = common::parse_interface_table(text);
  EXPECT_EQ(table[0], "wlan-interface-with");
  EXPECT_EQ(table[15].size(), common::kInterfaceNameMax);
  EXPECT_EQ(common::interface_index_in(table, "wlan-interface-with-a-long-name-16"), 0);
  EXPECT_EQ(common::parse_interface_table("")[0], "");
}

TEST(InterfaceTable, NumbersOfUnlistedNamesAreRangeChecked) {
  const common::InterfaceTable table{};
  const std::pair<const char*, int> names[] = {
      {"ath255", 255}, {"ath-1", -1}, {"ath256", 0}, {"ath-2147483648", 0}, {"ath99999999999999", 0}};
  for (const auto& [name, want] : names) EXPECT_EQ(common::interface_index_in(table, name), want) << name;
}

}  // namespace
