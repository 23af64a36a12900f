// The MAC-auth query: the cache of positive answers, the detached RADIUS
// workers, the VLAN policy and the hand-over of a RADIUS-assigned VLAN.
//
// Locking: ctx.macauth, ctx.vlan, ctx.event_config, ctx.masterconf and
// ctx.uplink are touched only under ctx.shared_mutex, and the lock is let go
// before any command runs (radclient, iwpriv, snmptrap, ebtables).

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "common/clock.h"
#include "common/files.h"
#include "common/mac.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "macauth/acl_table.h"
#include "macauth/macauth.h"
#include "macauth/radius.h"
#include "snmp/traps.h"
#include "vlan/rules.h"

namespace macauth {

namespace {

constexpr std::size_t kTrapSsidMax = 127;
constexpr int kDynamicDisable = 0;
constexpr int kVlanLimit = 4096;

// What a worker needs, copied by the caller: the worker owns it.
struct AclQueryJob {
  int ath_index = 0;
  int wlan_index = 0;  // WLAN number minus 1
  std::string mac;     // the first min(length, 20) characters the driver gave
  daemon_core::DaemonContext* context = nullptr;
};

// The WLAN index 0..15 of a VAP, or -1.
int wlan_index_of(int ath) {
  int w = config::get_wlan_id(ath) - 1;
  return (w >= 0 && w < kWlanCount) ? w : -1;
}

// Caller holds ctx.shared_mutex.
VlanPolicySettings policy_settings_locked(const daemon_core::DaemonContext& ctx, int w) {
  const vlan::WlanVlan& wlan = ctx.vlan.wlan_vlan[static_cast<std::size_t>(w)];
  return VlanPolicySettings{ctx.vlan.bridge_mode != 0, wlan.dynamic_mode, wlan.radius_acl != 0,
                            wlan.vlan_id};
}

void send_authresp(int ath, std::string_view mac, int code) {
  common::run_command(authresp_command(ath, mac, code));
}

bool write_request_file(const std::string& path, std::string_view text) {
  // The name sits under /tmp: what someone else planted there (a link, a
  // FIFO, a directory) is moved out of the way, a file left behind is
  // removed, and the request is created afresh and exclusively (once more
  // when something was planted again in between).
  for (int attempt = 0; attempt < 2; ++attempt) {
    common::clear_fixed_name(path);
    ::unlink(path.c_str());
    int fd = common::open_regular_nonblocking(path, O_WRONLY | O_CREAT | O_EXCL);
    if (fd < 0) continue;
    const bool ok = common::write_all(fd, text);
    ::close(fd);
    return ok;
  }
  return false;
}

// NAS-IP-Address: "ipaddr" of "/etc/net/wan.status"; an empty value counts
// as none (the request builder leaves out anything but a dotted address).
std::optional<std::string> wan_ipaddr() {
  config::TaglistPtr status = config::load_taglist_ex(config::kWanStatusPath, 1, nullptr);
  std::string ip(config::get_taglist_default(status.get(), "ipaddr", ""));
  config::free_taglist(std::move(status));
  if (ip.empty()) return std::nullopt;
  return ip;
}

// An accepted answer that the VLAN policy refused: trap 5 when a receiver is
// configured. The trap record is sent from a copy taken under the lock.
void report_vlan_failure(daemon_core::DaemonContext& ctx, const AclQueryJob& job,
                         const std::string& ssid, int vlan) {
  std::optional<snmp::EventConfig> event_config;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    snmp::check_event_config(ctx.event_config.get());
    if (ctx.event_config && ctx.event_config->enabled == 1) event_config = *ctx.event_config;
  }
  if (!event_config) return;
  snmp::VlanFailureTrapInfo info;
  info.mac = common::cut(common::copy_as_own_format(job.mac), 17);
  info.ssid = common::cut(common::copy_as_own_format(ssid), 33);
  info.vlan = vlan;
  snmp::send_vlanAccessControlMechnismFailureTrap(*event_config, info);
}

// One query from request file to answer. Returns the VLAN to hand to the
// station VLAN rules (-1: none). The pending slot and the request file are
// the caller's to clean up only when *request_path was set.
int run_query(daemon_core::DaemonContext& ctx, const AclQueryJob& job,
              std::string* request_path) {
  const std::size_t w = static_cast<std::size_t>(job.wlan_index);

  RadiusRequest request;
  request.user = hex_only_mac(job.mac);
  request.calling_station = dashed_mac(job.mac);
  request.bssid = dashed_bssid(config::get_bssid(job.ath_index));
  request.nas_ip = wan_ipaddr();
  std::array<RadiusServer, 2> servers;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    request.nas_identifier = ctx.macauth.ap_name;
    request.ssid = ctx.macauth.wlan_acl[w].ssid;
    servers = ctx.macauth.wlan_acl[w].servers;
  }
  std::string text = build_radius_request(request);
  if (text.size() < kRequestMin) return -1;

  std::string path = request_file_path(request.user, job.ath_index);
  if (!write_request_file(path, text)) return -1;
  *request_path = path;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    add_pending(ctx.macauth.wlan_acl[w].pending, job.mac);
  }

  std::string reply;
  int code = 0;
  for (const RadiusServer& server : servers) {
    if (!server.valid) continue;
    auto output = common::run_command_read(
        radclient_command(server.host, server.auth_port, server.secret, path), kReplyMax + 1);
    code = 0;
    if (output && !output->empty()) {
      // The reply is text: it ends at its first NUL.
      reply = common::cut(std::string_view(*output).substr(0, output->find('\0')), kReplyMax);
      code = parse_result_code(radius_reply_section(reply));
    }
    if (code == kCodeAccessAccept || code == kCodeAccessReject) break;
  }
  if (code == kCodeAccessReject) {
    send_authresp(job.ath_index, job.mac, kAuthReject);
    return -1;
  }
  if (code != kCodeAccessAccept) return -1;  // the driver's own time-out decides

  std::string ssid;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    ssid = config::get_config_masterconf(ctx.masterconf.get(), kTrapSsidMax, "WLAN%d_%s",
                                         job.wlan_index + 1, "SSID")
               .value_or(std::string());
  }
  int vlan = parse_tunnel_vlan(radius_reply_section(reply));
  if (vlan_access_ctrl_policy(ctx, job.ath_index, vlan) != 0) {
    report_vlan_failure(ctx, job, ssid, vlan);
    return -1;  // no answer to the driver
  }
  send_authresp(job.ath_index, job.mac, kAuthAccept);
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    MacAuthState& state = ctx.macauth;
    int slot = cache_store_slot(state.wlan_acl[w].cache, state.acl_cache_period);
    if (slot >= 0) {
      AclCacheSlot& entry = state.wlan_acl[w].cache[static_cast<std::size_t>(slot)];
      entry.mac = job.mac;  // cut to its 20 characters
      entry.stamp = static_cast<std::uint32_t>(common::wall_now());
      entry.vlan = static_cast<std::int16_t>(vlan);
    }
  }
  return vlan;
}

// A worker's stack: its deepest path (a command read through a pipe, the
// request and answer texts, the VLAN rule updates) uses a few KiB; the
// default of 8 MiB would be reserved per worker. The sanitizers need room
// for their own frames and redzones.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kWorkerStack = 1024 * 1024;
#else
constexpr std::size_t kWorkerStack = 128 * 1024;
#endif

// The workers' stacks are the module's own (the C library would keep the
// stacks of ended threads, with the pages they touched, for reuse): a
// worker marks its slot done as its last step, and the main thread joins
// it and unmaps the stack at its next pass (reap_workers). A start that
// finds no free slot leaves the stack to the C library.
struct WorkerSlot {
  void* stack = nullptr;  // mapping of kStackMapping bytes, guard page first; null = free
  pthread_t thread{};
  bool done = false;
};
const std::size_t kStackMapping = kWorkerStack + static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
std::mutex g_worker_mutex;
std::array<WorkerSlot, 2 * kMaxWorkers> g_worker_slots;  // guarded by g_worker_mutex

void mark_worker_done(pthread_t self) {
  std::lock_guard<std::mutex> lock(g_worker_mutex);
  for (WorkerSlot& slot : g_worker_slots)
    if (slot.stack != nullptr && pthread_equal(slot.thread, self)) slot.done = true;
}

void* acl_query_worker(void* arg) {
  std::unique_ptr<AclQueryJob> job(static_cast<AclQueryJob*>(arg));
  daemon_core::DaemonContext& ctx = *job->context;
  std::string request_path;
  int vlan = -1;
  if (job->wlan_index >= 0 && job->wlan_index < kWlanCount)
    vlan = run_query(ctx, *job, &request_path);
  if (!request_path.empty()) {
    ::unlink(request_path.c_str());
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    clear_pending(ctx.macauth.wlan_acl[static_cast<std::size_t>(job->wlan_index)].pending,
                  job->mac);
  }
  if (vlan >= 0) handle_sta_mac_auth_vlan(ctx, job->mac, job->ath_index, vlan);
  {
    // The count was raised by the caller before this thread started.
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    --ctx.macauth.active_workers;
  }
  job.reset();
  mark_worker_done(pthread_self());
  return nullptr;
}

// Starts a worker that owns the job. Caller has raised the count; on
// failure it is lowered again.
void start_worker(std::unique_ptr<AclQueryJob> job) {
  reap_workers();
  daemon_core::DaemonContext& ctx = *job->context;
  AclQueryJob* raw = job.release();
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  std::unique_lock<std::mutex> lock(g_worker_mutex);
  WorkerSlot* slot = nullptr;
  for (WorkerSlot& candidate : g_worker_slots)
    if (candidate.stack == nullptr) slot = &candidate;
  void* stack = slot ? ::mmap(nullptr, kStackMapping, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)
                     : MAP_FAILED;
  const std::size_t guard = kStackMapping - kWorkerStack;
  if (stack != MAP_FAILED && ::mprotect(stack, guard, PROT_NONE) == 0) {
    pthread_attr_setstack(&attr, static_cast<char*>(stack) + guard, kWorkerStack);
  } else {
    if (stack != MAP_FAILED) ::munmap(stack, kStackMapping);
    stack = MAP_FAILED;
    pthread_attr_setstacksize(&attr, std::max<std::size_t>(kWorkerStack, PTHREAD_STACK_MIN));
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  }
  pthread_t thread;
  const int started = pthread_create(&thread, &attr, acl_query_worker, raw);
  pthread_attr_destroy(&attr);
  if (started != 0) {
    if (stack != MAP_FAILED) ::munmap(stack, kStackMapping);
    lock.unlock();
    std::unique_ptr<AclQueryJob> reclaimed(raw);
    std::lock_guard<std::mutex> count_lock(ctx.shared_mutex);
    --ctx.macauth.active_workers;
    return;
  }
  if (stack != MAP_FAILED) *slot = WorkerSlot{stack, thread, false};
}

}  // namespace

int reap_workers() {
  std::array<WorkerSlot, 2 * kMaxWorkers> ended;
  int running = 0;
  {
    std::lock_guard<std::mutex> lock(g_worker_mutex);
    for (std::size_t i = 0; i < g_worker_slots.size(); ++i) {
      if (g_worker_slots[i].stack == nullptr) continue;
      if (!g_worker_slots[i].done) {
        ++running;
        continue;
      }
      ended[i] = g_worker_slots[i];
      g_worker_slots[i] = WorkerSlot{};
    }
  }
  int joined = 0;
  for (WorkerSlot& slot : ended) {
    if (slot.stack == nullptr) continue;
    pthread_join(slot.thread, nullptr);  // it marked itself done as its last step
    ::munmap(slot.stack, kStackMapping);
    ++joined;
  }
#if defined(__GLIBC__) && !defined(__UCLIBC__)
  // The last worker of a burst is gone: the heap pages its jobs, requests
  // and answers dirtied are handed back, so a burst leaves no lasting growth
  // (glibc keeps freed pages below its top chunk otherwise).
  if (joined > 0 && running == 0) malloc_trim(0);
#endif
  return running;
}

namespace {
// Workers that have ended by the time the process exits are joined too (the
// unit tests start workers without a main loop).
struct ReapAtExit {
  ~ReapAtExit() { reap_workers(); }
};
ReapAtExit g_reap_at_exit;
}  // namespace

int mac_auth_query_extern_acl(std::string_view mac, int mac_length, int ath,
                              daemon_core::DaemonContext& ctx) {
  int w = wlan_index_of(ath);
  if (w < 0) return -1;
  std::int64_t now = common::wall_now();

  std::size_t length = static_cast<std::size_t>(std::clamp(mac_length, 0, 20));
  std::string_view station = mac.substr(0, std::min(length, mac.size()));
  // The text names the request file and goes into commands: only a MAC
  // address is taken.
  if (common::canonical_mac(station).empty()) return 0;

  std::optional<int> cached_vlan;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    WlanAclConfig& wlan = ctx.macauth.wlan_acl[static_cast<std::size_t>(w)];
    if (!wlan.enabled) return 0;
    if (is_pending(wlan.pending, station)) return 0;  // that query will answer

    int slot = find_cached_answer(wlan.cache, station, now, ctx.macauth.acl_cache_period);
    if (slot >= 0) {
      int vlan = wlan.cache[static_cast<std::size_t>(slot)].vlan;
      // A cached answer that the policy now refuses is asked again.
      if (vlan_policy_decision(policy_settings_locked(ctx, w), vlan) == 0) cached_vlan = vlan;
    }
    if (!cached_vlan) {
      if (ctx.macauth.active_workers >= kMaxWorkers) return 0;
      // Counted here, before the thread exists, so a burst never starts
      // more than kMaxWorkers.
      ++ctx.macauth.active_workers;
    }
  }

  if (cached_vlan) {
    send_authresp(ath, station, kAuthAccept);
    if (*cached_vlan >= 0) handle_sta_mac_auth_vlan(ctx, station, ath, *cached_vlan);
    return 0;
  }

  auto job = std::make_unique<AclQueryJob>();
  job->ath_index = ath;
  job->wlan_index = w;
  job->mac = std::string(station);
  job->context = &ctx;
  start_worker(std::move(job));
  return 0;
}

int vlan_access_ctrl_policy(daemon_core::DaemonContext& ctx, int ath, int vlan) {
  int w = wlan_index_of(ath);
  if (w < 0) return 0;
  VlanPolicySettings settings;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    settings = policy_settings_locked(ctx, w);
  }
  return vlan_policy_decision(settings, vlan);
}

void handle_sta_mac_auth_vlan(daemon_core::DaemonContext& ctx, std::string_view mac, int ath,
                              int vlan) {
  int w = wlan_index_of(ath);
  if (w < 0) return;
  int wlan_vlan = 0;
  std::string bridge;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    const vlan::WlanVlan& settings = ctx.vlan.wlan_vlan[static_cast<std::size_t>(w)];
    if (!ctx.vlan.bridge_mode || settings.dynamic_mode == kDynamicDisable) return;
    // Taken unsigned: a negative VLAN is out of range too.
    if (static_cast<unsigned>(vlan) >= static_cast<unsigned>(kVlanLimit) || vlan == ctx.vlan.untag_vlan) return;
    wlan_vlan = settings.vlan_id;
    bridge = ctx.uplink;
  }
  vlan::install_sta_vlan_rules(ctx, mac, ath, vlan, wlan_vlan, bridge);
}

}  // namespace macauth
