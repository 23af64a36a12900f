#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "clients/notifier.h"
#include "common/clock.h"
#include "common/runner.h"
#include "daemon/context.h"

namespace {

constexpr const char* kStation = "00:11:22:33:44:55";

// --- the text transforms

TEST(NotifierText, StripColons) {
  struct Case {
    std::string_view in;
    std::size_t n;
    std::string_view want;
  };
  const Case cases[] = {
      {"00:11:22:33:44:55", 128, "001122334455"},
      {"00:11:22:33:44:55", 5, "0011"},  // at most n - 1 characters
      {"::", 128, ""},
      {"ab", 1, ""},
  };
  for (const Case& c : cases) EXPECT_EQ(clients::strip_colons(c.in, c.n), c.want) << c.in;
}

TEST(NotifierText, HexEscape) {
  struct Case {
    std::string in;
    std::string want;
    std::string want_trace;
  };
  const Case cases[] = {
      {"Ab", "4162", "A 41b 62"},
      {"", "", ""},
      // A byte above 127 is taken as signed and comes out sign-extended.
      {"a\xE9", "61FFFFFFE9", "a 61\xE9 FFFFFFE9"},
  };
  for (const Case& c : cases) {
    std::string trace;
    EXPECT_EQ(clients::hex_escape(c.in, 128, trace), c.want) << c.in;
    EXPECT_EQ(trace, c.want_trace) << c.in;
  }
}

TEST(NotifierText, HexEscapeStopsAtNMinus3) {
  // 63 characters bring the text to 126 >= 125: the rest is not examined.
  std::string trace;
  std::string want;
  for (int i = 0; i < 63; ++i) want += "61";
  EXPECT_EQ(clients::hex_escape(std::string(100, 'a'), 128, trace), want);
  EXPECT_EQ(trace.size(), 63u * 4);

  // An eight-digit code at the end is cut to the 127 characters there is room for.
  std::string text(62, 'a');
  text += '\xFF';
  text += "bbb";
  trace.clear();
  std::string out = clients::hex_escape(text, 128, trace);
  EXPECT_EQ(out.size(), 127u);
  EXPECT_EQ(out.substr(124), "FFF");
  EXPECT_EQ(trace.size(), 62u * 4 + 10);
}

// --- the call appender

TEST(NotifierCall, AppendsCallsBehindEachOther) {
  std::string command;
  std::size_t length = clients::append_notifier_call(command, 22, "aa bb [4F]", 1700000000);
  EXPECT_EQ(length, command.size());
  EXPECT_NE(clients::append_notifier_call(command, 21, "cc dd [50]", 1700000005), 0u);
  EXPECT_EQ(command,
            "tavo_client  -E 22 \"aa bb [4F]\" 1700000000  &"
            "tavo_client  -E 21 \"cc dd [50]\" 1700000005  &");
}

TEST(NotifierCall, Limits) {
  const std::string call_of_255 = "tavo_client  -E 21 \"" + std::string(255, 'm') + "\" 7  &";
  struct Case {
    std::size_t already;  // characters in the command before
    std::size_t message;  // message length
    bool fits;
  };
  const Case cases[] = {
      {0, 255, true},
      {0, 256, false},
      {1023 - call_of_255.size(), 255, true},  // ends exactly at 1023
      {1024 - call_of_255.size(), 255, false},
      {1012, 1, false},  // not even "tavo_client " plus the rest
  };
  for (const Case& c : cases) {
    std::string command(c.already, 'x');
    std::size_t got = clients::append_notifier_call(command, 21, std::string(c.message, 'm'), 7);
    if (c.fits) {
      EXPECT_EQ(got, command.size());
      EXPECT_EQ(command.size(), c.already + 20 + c.message + 6);
    } else {
      EXPECT_EQ(got, 0u);
      EXPECT_EQ(command, std::string(c.already, 'x'));  // unchanged
    }
  }
}

TEST(NotifierCall, MessageStaysInsideItsQuotes) {
  std::string command;
  clients::append_notifier_call(command, 21, "a\"$(id)`x`\\", 1);
  EXPECT_EQ(command, "tavo_client  -E 21 \"a\\\"\\$(id)\\`x\\`\\\\\" 1  &");
}

// --- the queue

// Owns a context and fake device answers; records the commands run.
class NotifierQueue : public ::testing::Test {
 protected:
  void SetUp() override {
    ctx_ = std::make_unique<daemon_core::DaemonContext>();
    for (auto& record : ctx_->records) record.owner = ctx_.get();
    ctx_->client_count = 4;
    ssids_ = {{0, "office"}, {1, "guest"}};
    bssids_ = {{0, "0A:00:00:00:00:01"}, {1, "0A:00:00:00:00:02"}};
    sources_.ssid = [this](const clients::ClientRecord& r) { return ssids_[r.ifindex]; };
    sources_.bssid = [this](const clients::ClientRecord& r) { return bssids_[r.ifindex]; };
    sources_.station_count = [this](int) { return stations_; };
    sources_.vap_limit = [this](const clients::ClientRecord&) { return limit_; };
    sources_.radio_limit = [](const clients::ClientRecord&) {};
    recorder_.record = [this](const std::string& c) { commands_.push_back(c); };
    common::set_command_recorder(&recorder_);
  }
  void TearDown() override { common::set_command_recorder(nullptr); }

  clients::ClientRecord& station(int slot, int ifindex) {
    clients::ClientRecord& r = ctx_->records[slot];
    r.in_use = 1;
    r.mac = kStation;
    r.ifindex = ifindex;
    return r;
  }

  // Commands with every call's time replaced by T.
  std::vector<std::string> commands() const {
    std::vector<std::string> out;
    static const std::regex time_field("\" -?[0-9]+  &");
    for (const auto& c : commands_) out.push_back(std::regex_replace(c, time_field, "\" T  &"));
    return out;
  }

  std::unique_ptr<daemon_core::DaemonContext> ctx_;
  std::map<int, std::string> ssids_;
  std::map<int, std::string> bssids_;
  int stations_ = 0;
  std::optional<int> limit_;
  clients::NotifierSources sources_;
  common::CommandRecorder recorder_;
  std::vector<std::string> commands_;
};

TEST_F(NotifierQueue, FirstAssociationIsReportedAtOnce) {
  clients::ClientRecord& r = station(0, 0);
  const std::int64_t before = common::wall_now();
  clients::tavo_event_queue(r, 11, sources_);
  EXPECT_EQ(commands(),
            std::vector<std::string>{
                "tavo_client  -E 21 \"001122334455 0A0000000001 [6F6666696365]\" T  &"});
  EXPECT_EQ(r.state, 11);
  EXPECT_GE(r.state_time, before);
  EXPECT_EQ(r.holdoff_deadline, r.state_time + 190);
  EXPECT_EQ(ctx_->next_deadline, r.holdoff_deadline);
  EXPECT_EQ(r.pending_code, 0);
  EXPECT_EQ(r.pending_since, 0);
}

TEST_F(NotifierQueue, RepeatedCodeOnlyRestampsTheHoldoff) {
  clients::ClientRecord& r = station(0, 0);
  r.state = 11;
  r.state_time = common::wall_now() - 1000;
  r.pending_code = 11;
  clients::tavo_event_queue(r, 11, sources_);
  EXPECT_TRUE(commands_.empty());
  EXPECT_GE(r.state_time, common::wall_now() - 1);
  EXPECT_EQ(r.holdoff_deadline, r.state_time + 190);
  EXPECT_EQ(r.pending_code, 0);
}

TEST_F(NotifierQueue, DisassociationOfANeverReportedStationIsDropped) {
  clients::ClientRecord& r = station(0, 0);
  clients::tavo_event_queue(r, 12, sources_);
  EXPECT_TRUE(commands_.empty());
  EXPECT_EQ(r.state, 0);
  EXPECT_EQ(r.pending_code, 0);
  EXPECT_EQ(r.holdoff_deadline, 0);
}

TEST_F(NotifierQueue, CodesWithinTheirAgeAreHeld) {
  struct Case {
    std::uint8_t state;
    std::int64_t age;
    std::uint8_t code;
    bool reported;
  };
  const Case cases[] = {
      {12, 30, 11, false},
      {12, 60, 11, true},
      {11, 179, 12, false},
      {11, 180, 12, true},
  };
  for (const Case& c : cases) {
    commands_.clear();
    clients::ClientRecord& r = station(0, 0);
    const std::int64_t stamped = common::wall_now() - c.age;
    r.state = c.state;
    r.state_time = stamped;
    r.pending_code = 0;
    clients::tavo_event_queue(r, c.code, sources_);
    EXPECT_EQ(commands_.size(), c.reported ? 1u : 0u) << c.age;
    EXPECT_EQ(r.state, c.code);
    if (c.reported) {
      EXPECT_EQ(r.pending_code, 0);
    } else {
      EXPECT_EQ(r.pending_code, c.code);
      EXPECT_GT(r.pending_since, 0);
      EXPECT_EQ(r.state_time, stamped);  // the held state keeps its time
    }
  }
}

TEST_F(NotifierQueue, RoamingReportsTheOldVapsLeavingFirstInOneCommand) {
  clients::ClientRecord& old_vap = station(1, 0);
  old_vap.state = 12;  // left ath0 recently; its report is held
  old_vap.state_time = common::wall_now() - 20;
  old_vap.pending_code = 12;
  old_vap.pending_since = common::wall_now() - 5;
  clients::ClientRecord& new_vap = station(2, 1);

  clients::tavo_event_queue(new_vap, 11, sources_);
  EXPECT_EQ(commands(), std::vector<std::string>{
                            "tavo_client  -E 22 \"001122334455 0A0000000001 [6F6666696365]\" T  &"
                            "tavo_client  -E 21 \"001122334455 0A0000000002 [6775657374]\" T  &"});
  EXPECT_EQ(old_vap.pending_code, 0);
  EXPECT_EQ(old_vap.holdoff_deadline, old_vap.state_time + 70);
  EXPECT_EQ(new_vap.state, 11);
}

TEST_F(NotifierQueue, NothingRunsWhenACallCannotBeBuilt) {
  clients::ClientRecord& old_vap = station(1, 0);
  old_vap.state = 12;
  old_vap.pending_code = 12;
  bssids_.erase(0);  // the old VAP is gone
  clients::ClientRecord& new_vap = station(2, 1);
  clients::tavo_event_queue(new_vap, 11, sources_);
  EXPECT_TRUE(commands_.empty());
  EXPECT_EQ(old_vap.pending_code, 12);
}

TEST_F(NotifierQueue, ClientLimitRaisesTheFlagAndTheAlert) {
  struct Case {
    int stations;
    std::optional<int> limit;
    std::uint8_t flag;
  };
  const Case cases[] = {
      {5, 5, 5}, {4, 5, 0}, {9, std::nullopt, 0}, {9, 0, 0}, {300, 300, 44},
  };
  ssids_[0] = "my \"net\" $(x)";
  for (const Case& c : cases) {
    commands_.clear();
    stations_ = c.stations;
    limit_ = c.limit;
    clients::ClientRecord& r = station(0, 0);
    r.state = 12;
    r.state_time = common::wall_now() - 10;  // held, so the flag stays visible
    r.pending_flag = 0;
    clients::tavo_event_queue(r, 11, sources_);
    EXPECT_EQ(r.pending_flag, c.flag) << c.stations;
    if (c.flag != 0) {
      EXPECT_EQ(commands_, std::vector<std::string>{
                               "logger -t ALERT \"[my \\\"net\\\" \\$(x)] reached maximum (" +
                               std::to_string(*c.limit) + ") no. of associated clients\""});
    } else {
      EXPECT_TRUE(commands_.empty());
    }
  }
}

TEST_F(NotifierQueue, ReachedLimitGoesOutBeforeTheAssociation) {
  stations_ = 8;
  limit_ = 8;
  ssids_[0] = "ab";
  clients::ClientRecord& r = station(0, 0);
  clients::tavo_event_queue(r, 11, sources_);
  ASSERT_EQ(commands_.size(), 2u);
  EXPECT_EQ(commands()[1],
            "tavo_client  -E 23 \"8 0A0000000001 [6162]\" T  &"
            "tavo_client  -E 21 \"001122334455 0A0000000001 [6162]\" T  &");
  EXPECT_EQ(r.pending_flag, 0);
}

}  // namespace
