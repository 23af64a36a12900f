#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "clients/notifier.h"
#include "common/clock.h"
#include "model/context.h"
#include "recorded_commands.h"

namespace {

constexpr const char* kStation = "00:11:22:33:44:55";

TEST(NotifierText, HexEscapeSignExtendsAndStopsAtNMinus3) {
  std::string trace;
  // A byte above 127 is taken as signed and comes out sign-extended.
  EXPECT_EQ(clients::hex_escape("a\xE9", 128, trace), "61FFFFFFE9");
  // 63 characters bring the text to 126 >= 125: the rest is not examined.
  EXPECT_EQ(clients::hex_escape(std::string(100, 'a'), 128, trace).size(), 126u);
  // An eight-digit code at the end is cut to the 127 characters there is room for.
  const std::string out = clients::hex_escape(std::string(62, 'a') + "\xFF" + "bbb", 128, trace);
  EXPECT_EQ(out.size(), 127u);
  EXPECT_EQ(out.substr(124), "FFF");
}

TEST(NotifierCall, Limits) {
  const std::size_t call_of_255 = ("tavo_client  -E 21 \"" + std::string(255, 'm') + "\" 7  &").size();
  struct Case { std::size_t already, message; bool fits; };
  // The third call ends exactly at 1023.
  const Case cases[] = {{0, 255, true}, {0, 256, false}, {1023 - call_of_255, 255, true},
                        {1024 - call_of_255, 255, false}};
  for (const Case& c : cases) {
    std::string command(c.already, 'x');
    const std::size_t got = clients::append_notifier_call(command, 21, std::string(c.message, 'm'), 7);
    EXPECT_EQ(got, c.fits ? c.already + call_of_255 + c.message - 255 : 0u) << c.already;
    EXPECT_EQ(command.size(), c.fits ? got : c.already);
  }
}

// Owns a context and fake device answers; records the commands run.
class NotifierQueue : public ::testing::Test {
 protected:
  void SetUp() override {
    for (auto& record : ctx_->records) record.owner = ctx_.get();
    ctx_->client_count = 4;
    sources_.ssid = [this](const clients::ClientRecord& r) { return ssids_[r.ifindex]; };
    sources_.bssid = [this](const clients::ClientRecord& r) { return bssids_[r.ifindex]; };
    sources_.station_count = [](int) { return 0; };
    sources_.vap_limit = [](const clients::ClientRecord&) { return std::optional<int>(); };
    sources_.radio_limit = [](const clients::ClientRecord&) {};
  }

  // A station on the slot whose state was stamped age seconds ago.
  clients::ClientRecord& station(int slot, int ifindex, std::uint8_t state = 0, std::int64_t age = 0) {
    clients::ClientRecord& r = ctx_->records[slot];
    r.in_use = 1;
    r.mac = kStation;
    r.ifindex = ifindex;
    r.state = state;
    r.state_time = state ? common::wall_now() - age : 0;
    r.pending_code = 0;
    return r;
  }

  std::unique_ptr<daemon_core::DaemonContext> ctx_ = std::make_unique<daemon_core::DaemonContext>();
  std::map<int, std::string> ssids_{{0, "office"}, {1, "guest"}};
  std::map<int, std::string> bssids_{{0, "0A:00:00:00:00:01"}, {1, "0A:00:00:00:00:02"}};
  clients::NotifierSources sources_;
  test_support::RecordedCommands recorded_;
  std::vector<std::string>& commands_ = recorded_.commands;
};

TEST_F(NotifierQueue, HeldRepeatedAndDroppedCodes) {
  struct Case { std::uint8_t state; std::int64_t age; std::uint8_t code; bool reported, held; };
  const Case cases[] = {
      {12, 30, 11, false, true},  {12, 60, 11, true, false},  // re-association within 60 s is held
      {11, 179, 12, false, true}, {11, 180, 12, true, false},
      {11, 1000, 11, false, false},  // a repeated code only re-stamps the hold-off
      {0, 0, 12, false, false},      // never reported: the disassociation is dropped
  };
  for (const Case& c : cases) {
    commands_.clear();
    clients::ClientRecord& r = station(0, 0, c.state, c.age);
    const std::int64_t stamped = r.state_time;
    clients::tavo_event_queue(r, c.code, sources_);
    EXPECT_EQ(commands_.size(), c.reported ? 1u : 0u) << c.age;
    EXPECT_EQ(r.pending_code, c.held ? c.code : 0) << c.age;
    EXPECT_EQ(r.state, c.state == 0 ? 0 : c.code) << c.age;
    if (c.held) {
      EXPECT_EQ(r.state_time, stamped);  // the held state keeps its time
    } else if (c.state == c.code) {
      EXPECT_EQ(r.holdoff_deadline, r.state_time + 190);
    }
  }
}

// The command with each call's time field written as T.
std::string without_times(std::string text) {
  for (std::size_t at = 0; (at = text.find("\" ", at)) != std::string::npos; at += 3) {
    const std::size_t end = text.find("  &", at);
    if (end == std::string::npos) break;
    text.replace(at + 2, end - at - 2, "T");
  }
  return text;
}

TEST_F(NotifierQueue, RoamingReportsTheOldVapsLeavingFirstInOneCommand) {
  clients::ClientRecord& old_vap = station(1, 0, 12, 20);  // left ath0; its report is held
  old_vap.pending_code = 12;
  old_vap.pending_since = common::wall_now() - 5;
  clients::ClientRecord& new_vap = station(2, 1);
  clients::tavo_event_queue(new_vap, 11, sources_);
  ASSERT_EQ(commands_.size(), 1u);
  EXPECT_EQ(without_times(commands_[0]),
            "tavo_client  -E 22 \"001122334455 0A0000000001 [6F6666696365]\" T  &"
            "tavo_client  -E 21 \"001122334455 0A0000000002 [6775657374]\" T  &");
  EXPECT_EQ(old_vap.pending_code, 0);
  EXPECT_EQ(old_vap.holdoff_deadline, old_vap.state_time + 70);

  // A VAP that was torn down has no address: its departure is still
  // reported, with an empty BSSID field.
  commands_.clear();
  old_vap.pending_code = 12;
  bssids_[0] = "";
  clients::tavo_event_queue(station(2, 1), 11, sources_);
  ASSERT_EQ(commands_.size(), 1u);
  EXPECT_EQ(without_times(commands_[0]).substr(0, 54), "tavo_client  -E 22 \"001122334455  [6F6666696365]\" T  &");
  EXPECT_EQ(old_vap.pending_code, 0);
}

}  // namespace
