// qx_agentsim: an agent simulator for people who write job scripts and for tests. It listens
// on a loopback address, greets every connection as the scheduling agent does, receives the
// job messages (MELD) that qx_jpmd sends, prints each event in readable form or as one JSON
// object per line, answers, and serves until it is stopped.
//
//   qx_agentsim [--addr ADDRESS] [--port PORT] [--json] [--count N] [--mode MODE]
//               [--idle SECONDS]
//
//   --addr   address to listen on (default 127.0.0.1)
//   --port   port to listen on (default 2217; 0 lets the system choose one)
//   --json   one JSON object per event instead of the readable line
//   --count  exit after N events (default: serve until SIGTERM or SIGINT)
//   --mode   normal (default), or a misbehaviour for testing job scripts:
//            silent (never greets), wrong-greeting (greets under another key),
//            no-reply (never answers a job message), close (closes each connection at once)
//   --idle   close a connection that sent nothing for this many seconds (default 660;
//            0: never)
//   --help   the usage with every flag (also -h); exit status 0
//
// The first line on standard output is "listening on ADDRESS port PORT" with the port
// actually used, so that a script can start the simulator on port 0 and read its port.
// Nothing is written to standard error; the exit status is 0, or 2 for a wrong command line
// or a port that cannot be listened on (the reason is printed on standard output).
//
// No client and no reader of its output can stop it serving the others: a client that does
// not read its answers is dropped once kSendQueueMax of them wait for it; a connection that
// says nothing for --idle seconds is closed; its output goes through a writer thread with a
// bounded buffer (lines that do not fit while standard output is stalled are dropped), and
// once it is asked to stop it ends within kStopGraceSecs whatever still blocks.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "ccm/ccm.h"
#include "common/dates.h"
#include "common/standard_fds.h"

namespace {

enum class Mode { kNormal, kSilent, kWrongGreeting, kNoReply, kClose };

struct Options {
  std::string addr = "127.0.0.1";
  int port = 2217;
  bool json = false;
  long count = 0;  // 0: no limit
  Mode mode = Mode::kNormal;
  long idle_secs = 660;  // 0: never; longer than any wait of a messenger (TIMEOUT <= 600)
  bool help = false;     // --help or -h: print the usage with every flag and exit
};

// Once a stop begins, the process ends within this many seconds whatever still blocks (a
// stalled standard output, a close, the network thread): the alarm's handler ends it with
// the status of the run.
constexpr unsigned kStopGraceSecs = 1;
// Answers that may wait for one client before it counts as not reading and is dropped.
constexpr int kSendQueueMax = 1000;
// Output that may wait for a stalled standard output; further lines are dropped.
constexpr size_t kOutputMax = 1 << 20;

volatile sig_atomic_t g_stop = 0;
volatile sig_atomic_t g_exit_status = 0;

void on_grace_over(int) {
  _exit(g_exit_status);
}

// Starts the stop's grace time (once); safe in a signal handler.
void begin_stop() {
  static volatile sig_atomic_t armed = 0;
  if (armed) return;
  armed = 1;
  alarm(kStopGraceSecs);
}

void on_stop(int) {
  g_stop = 1;
  begin_stop();
}

// Standard output through a thread of its own: lines are queued without ever blocking the
// caller (up to kOutputMax bytes wait; lines beyond are dropped), and the thread writes them.
// A standard output that fails (a reader that is gone) takes no more lines.
class Output {
 public:
  void start() {
    thread_ = std::thread([this] { run(); });
  }
  void line(const std::string& text) {
    std::lock_guard<std::mutex> lock(mu_);
    if (broken_ || pending_.size() + text.size() + 1 > kOutputMax) return;
    pending_.append(text).append("\n");
    ready_.notify_one();
  }
  // Lets the thread write what waits, for at most `ms` milliseconds. True when everything
  // was written (the thread has ended); false when standard output is still stalled.
  bool finish(long ms) {
    std::unique_lock<std::mutex> lock(mu_);
    done_ = true;
    ready_.notify_one();
    if (!drained_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return ended_; }))
      return false;
    lock.unlock();
    thread_.join();
    return true;
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
      ready_.wait(lock, [this] { return !pending_.empty() || done_; });
      if (pending_.empty()) break;
      std::string text;
      text.swap(pending_);
      lock.unlock();
      for (size_t at = 0; at < text.size();) {
        const ssize_t n = write(STDOUT_FILENO, text.data() + at, text.size() - at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
          std::lock_guard<std::mutex> relock(mu_);
          broken_ = true;
          pending_.clear();
          break;
        }
        at += static_cast<size_t>(n);
      }
      lock.lock();
    }
    ended_ = true;
    drained_.notify_all();
  }

  std::mutex mu_;
  std::condition_variable ready_;
  std::condition_variable drained_;
  std::string pending_;
  bool broken_ = false;
  bool done_ = false;
  bool ended_ = false;
  std::thread thread_;
};
Output g_out;

constexpr int kListenBacklog = 4096;
constexpr int kGreetingKey = 4;
constexpr int kWrongKey = 7;
// A small message is plenty for a greeting or a reply (head room, header, a few bytes).
constexpr int kSmallMessage = 512;

bool parse(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; i++) {
    std::string_view a = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    if (a == "--help" || a == "-h") {
      o->help = true;
    } else if (a == "--json") {
      o->json = true;
    } else if (a == "--addr") {
      const char* v = value();
      if (v == nullptr) return false;
      o->addr = v;
    } else if (a == "--port" || a == "--count" || a == "--idle") {
      const char* v = value();
      char* end = nullptr;
      errno = 0;
      long n = v != nullptr && *v != 0 ? strtol(v, &end, 10) : -1;
      if (v == nullptr || *v == 0 || *end != 0 || errno != 0 || n < 0 ||
          (a == "--port" && n > 65535) || (a == "--idle" && n > 86400 * 365)) {
        return false;
      }
      if (a == "--port") {
        o->port = static_cast<int>(n);
      } else if (a == "--count") {
        o->count = n;
      } else {
        o->idle_secs = n;
      }
    } else if (a == "--mode") {
      const char* v = value();
      std::string_view m = v != nullptr ? v : "";
      if (m == "normal")
        o->mode = Mode::kNormal;
      else if (m == "silent")
        o->mode = Mode::kSilent;
      else if (m == "wrong-greeting")
        o->mode = Mode::kWrongGreeting;
      else if (m == "no-reply")
        o->mode = Mode::kNoReply;
      else if (m == "close")
        o->mode = Mode::kClose;
      else
        return false;
    } else {
      return false;
    }
  }
  return true;
}

// Sends a native message with `text` under `key` to channel `id`.
void send_native(ccm_context_t* ccm, int id, int key, const char* text) {
  ccm_error_t err{};
  ccm_msg_t* m = ccm_msg_alloc_huge(ccm, kSmallMessage, &err);
  if (m == nullptr) return;
  // Only key 4 is written by the connection manager's writer; other keys are put in place
  // here so that a wrong greeting can be sent on purpose.
  size_t n = strlen(text);
  m->msg_start[0] = static_cast<unsigned char>(key);
  m->msg_start[1] = static_cast<unsigned char>(n);
  memcpy(m->msg_start + 2, text, n);
  m->len = static_cast<int>(n + 2);
  ccm_setaddr(m, id, 0, "", "", 0);
  if (send_native_message(ccm, m) != 0) ccm_msg_free(ccm, m);
}

// ---- Reading a MELD body ---------------------------------------------------------------------

struct Body {
  const unsigned char* p;
  size_t len;
  bool has(size_t off, size_t n) const { return off + n <= len; }
  unsigned u32(size_t off) const {
    return has(off, 4) ? p[off] | p[off + 1] << 8 | p[off + 2] << 16 |
                             static_cast<unsigned>(p[off + 3]) << 24
                       : 0;
  }
  unsigned u16(size_t off) const { return has(off, 2) ? p[off] | p[off + 1] << 8 : 0; }
  int host32(size_t off) const {
    int v = 0;
    if (has(off, 4)) memcpy(&v, p + off, 4);
    return v;
  }
  unsigned short host16(size_t off) const {
    unsigned short v = 0;
    if (has(off, 2)) memcpy(&v, p + off, 2);
    return v;
  }
  // Text up to its NUL, at most `max` bytes and never past the body.
  std::string text(size_t off, size_t max) const {
    if (off >= len) return "";
    size_t n = strnlen(reinterpret_cast<const char*>(p + off), std::min(max, len - off));
    return std::string(reinterpret_cast<const char*>(p + off), n);
  }
  std::string utc(size_t off) const {
    char b[64];
    snprintf(b, sizeof b, "%04u-%02u-%02uT%02u:%02u:%02uZ", u16(off), u16(off + 2), u16(off + 4),
             u16(off + 6), u16(off + 8), u16(off + 10));
    return b;
  }
};

// One event as ordered fields; printed as "key=value ..." or as a JSON object.
class Event {
 public:
  Event(bool json) : json_(json) {}
  void num(const char* key, long long v) { add(key, std::to_string(v), false); }
  void str(const char* key, const std::string& v) { add(key, v, true); }
  void print() { g_out.line(json_ ? "{" + out_ + "}" : out_); }

 private:
  void add(const char* key, const std::string& v, bool quoted) {
    if (!out_.empty()) out_ += json_ ? "," : " ";
    // Appended piece by piece: no temporaries, and nothing for GCC's -O3 restrict check.
    if (json_) {
      out_.append("\"").append(key).append("\":").append(quoted ? quote_json(v) : v);
    } else {
      out_.append(key).append("=");
      if (quoted) {
        out_.append("'").append(v).append("'");
      } else {
        out_.append(v);
      }
    }
  }
  static std::string quote_json(const std::string& s) {
    std::string q = "\"";
    for (unsigned char c : s) {
      if (c == '"' || c == '\\') {
        q += '\\';
        q += static_cast<char>(c);
      } else if (c < 0x20 || c >= 0x7F) {
        char u[8];
        snprintf(u, sizeof u, "\\u%04x", c);
        q += u;
      } else {
        q += static_cast<char>(c);
      }
    }
    return q + "\"";
  }
  bool json_;
  std::string out_;
};

// Prints the event of a MELD body; false when the body is no MELD message.
bool print_event(const Options& o, int channel, const Body& b) {
  if (!b.has(0, 276) || memcmp(b.p, "MELD    ", 8) != 0) return false;
  Event e(o.json);
  char status = static_cast<char>(b.p[24]);
  switch (status) {
    case 'O':
      e.str("event", "output");
      break;
    case 'V':
      e.str("event", "variable");
      break;
    case 'E':
      e.str("event", "end");
      break;
    default:
      e.str("event", "status");
      break;
  }
  e.num("job", b.u32(20));
  e.num("client", b.host16(10));
  e.str("status", std::string(1, status));
  if (status == 'O') {
    e.str("utc", b.utc(68));
    e.num("time", b.u32(84));
    e.str("login_check", std::string(1, static_cast<char>(b.p[88])));
    e.str("file", b.text(89, 187));
  } else if (status == 'V') {
    e.str("utc", b.utc(100));
    e.num("time", b.u32(116));
    bool has_var = b.host32(124) == 1225 && b.has(128, 1225);
    e.str("name", has_var ? b.text(128, 200) : "");
    e.str("value", has_var ? b.text(328, 1024) : "");
    e.str("type", has_var && b.p[1352] != 0 ? std::string(1, static_cast<char>(b.p[1352])) : "");
  } else {
    e.num("rc", static_cast<int>(b.u32(100)));
    e.str("text", b.text(25, 32));
    e.str("utc", b.utc(108));
    e.num("time", b.u32(124));
    e.num("pid", b.u32(128));
    e.num("ppid", b.u32(132));
    e.num("pgrp", b.u32(136));
  }
  e.num("channel", channel);
  e.print();
  return true;
}

// The connections being served: when each was last heard from (accepted, or a message read).
class Clients {
 public:
  Clients(ccm_context_t* ccm, const Options& o) : ccm_(ccm), o_(o) {}

  void accepted(int id) { last_heard_[id] = MonotonicMs(); }
  // A message came from `id` (a client already dropped stays dropped).
  void heard(int id) {
    if (auto it = last_heard_.find(id); it != last_heard_.end()) it->second = MonotonicMs();
  }
  void gone(int id) { last_heard_.erase(id); }

  // Sends a native message with `text` under `key` to client `id`, unless the client does not
  // read: with kSendQueueMax answers waiting for it, it is dropped instead.
  void send(int id, int key, const char* text) {
    if (queued_for(id) >= kSendQueueMax) {
      drop(id, "not reading");
      return;
    }
    send_native(ccm_, id, key, text);
  }

  // Closes the connections that said nothing for the idle time; looks at most every 200 ms.
  void close_idle() {
    const long long now = MonotonicMs();
    if (o_.idle_secs <= 0 || now - last_sweep_ < 200) return;
    last_sweep_ = now;
    for (auto it = last_heard_.begin(); it != last_heard_.end();) {
      const int id = it->first;
      ++it;  // drop() removes the entry
      if (now - last_heard_[id] >= o_.idle_secs * 1000) drop(id, "idle");
    }
  }

  // Closes client `id` at once (whatever waits for it is given up) and says so.
  void drop(int id, const char* why) {
    // Its close does not wait for the client to take what is still unsent: no close does.
    ccm_channel_deletebyID(ccm_, id);
    ccm_wakeup_network(ccm_);
    gone(id);
    Event e(o_.json);
    e.str("event", "closed");
    e.str("reason", why);
    e.num("channel", id);
    e.print();
  }

 private:
  // Messages waiting in the channel's own send queue.
  int queued_for(int id) {
    const ccm_found_channel ch = ccm_found_channel::by_ID(ccm_, id);
    if (!ch) return 0;
    int n = 0;
    ccmch_queue_guard queue(ccm_, ch.get(), ccm_lock_trace::kQuiet);
    for (ccm_msg_t* m = ch->sendq.head; m != nullptr && n < kSendQueueMax; m = m->nxt)
      n++;
    return n;
  }

  ccm_context_t* ccm_;
  const Options& o_;
  std::unordered_map<int, long long> last_heard_;
  long long last_sweep_ = 0;
};

// The channel of an internal notice "CHANNEL_ACCEPT" or "CHANNEL_CLOSE", or -1 for others.
int notice_channel(const ccm_msg_t* m, bool* accepted) {
  const char* type = reinterpret_cast<const char*>(m->msg_start);
  int id = -1;
  if (m->len >= 20 && strncmp(type, IPCMSG_CHANNEL_ACCEPT, CCM_IPC_TYPE_SIZE) == 0) {
    memcpy(&id, m->msg_start + 16, sizeof id);
    *accepted = true;
  } else if (m->len >= static_cast<int>(sizeof(ipcmsg_channel_close_t)) &&
             strncmp(type, IPCMSG_CHANNEL_CLOSE, CCM_IPC_TYPE_SIZE) == 0) {
    memcpy(&id,
           m->msg_start + offsetof(ipcmsg_channel_close_t, ccmch) + offsetof(ccm_channel_t, ID),
           sizeof id);
    *accepted = false;
  }
  return id;
}

// Handles one received message; returns true when it was an event.
bool handle(ccm_context_t* ccm, const Options& o, Clients& clients, ccm_msg_t* m) {
  if (m->type == CCM_MSG_IPC) {
    bool accepted = false;
    const int id = notice_channel(m, &accepted);
    if (id < 0) return false;
    if (!accepted) {
      clients.gone(id);
      return false;
    }
    clients.accepted(id);
    switch (o.mode) {
      case Mode::kClose:
        ccm_channel_deletebyID(ccm, id);
        ccm_wakeup_network(ccm);
        break;
      case Mode::kSilent:
        break;
      case Mode::kWrongGreeting:
        clients.send(id, kWrongKey, "QX7 agent simulator");
        break;
      default:
        clients.send(id, kGreetingKey, "QX7 agent simulator");
        break;
    }
    return false;
  }
  int channel = m->addr.src_ID;
  clients.heard(channel);
  if (m->type != CCM_MSG_NAT ||
      !print_event(o, channel, Body{m->msg_start, static_cast<size_t>(m->len)})) {
    return false;
  }
  if (o.mode != Mode::kNoReply) clients.send(channel, kGreetingKey, "OK");
  return true;
}

// The port the listening channel got (the one asked for, or the system's choice for 0).
int listening_port(ccm_context_t* ccm) {
  const ccm_found_channel ch = ccm_found_channel::by_name(ccm, "*LISTEN");
  if (!ch) return -1;
  sockaddr_storage a{};
  socklen_t len = sizeof a;
  int port = -1;
  if (getsockname(ch->s, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
    port = a.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&a)->sin6_port)
                                   : ntohs(reinterpret_cast<sockaddr_in*>(&a)->sin_port);
  }
  return port;
}

constexpr char kUsage[] =
    "usage: qx_agentsim [--addr ADDRESS] [--port PORT] [--json] [--count N] "
    "[--mode normal|silent|wrong-greeting|no-reply|close] [--idle SECONDS]\n";

constexpr char kHelp[] =
    "\n"
    "Stands in for the scheduling agent: greets every connection, prints each job\n"
    "message of qx_jpmd and answers it. The first line is \"listening on ADDRESS port\n"
    "PORT\" with the port in use.\n"
    "\n"
    "  --addr ADDRESS  address to listen on (default 127.0.0.1)\n"
    "  --port PORT     port to listen on (default 2217; 0: a free one)\n"
    "  --json          one JSON object per event instead of key=value text\n"
    "  --count N       exit after N events (default: until SIGTERM or SIGINT)\n"
    "  --mode MODE     normal (default), silent (never greets), wrong-greeting,\n"
    "                  no-reply (never answers), close (closes each connection)\n"
    "  --idle SECONDS  close a connection that sent nothing for this long\n"
    "                  (default 660; 0: never)\n"
    "  --help, -h      this help\n"
    "\n"
    "Exit status: 0, or 2 for a wrong command line or a port it cannot use.\n"
    "See qx_agentsim(1).\n";

// Many simultaneous job runs need many descriptors.
void raise_descriptor_limit() {
  rlimit rl;
  if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
  }
}

// SIGTERM and SIGINT ask for a stop, SIGALRM ends the grace time. The stop signals are
// blocked until the threads are started, so that the network and output threads never see
// them: they interrupt the main thread's wait. Returns the set to unblock.
sigset_t catch_stop_signals() {
  struct sigaction sa {};
  sa.sa_handler = on_stop;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  sa.sa_handler = on_grace_over;
  sigaction(SIGALRM, &sa, nullptr);
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);
  return stops;
}

// Says where it listens, then answers clients until a stop or until `count` events.
void serve(ccm_context_t* ccm, const Options& o) {
  ccm_error_t err{};
  ccm_wakeup_network(ccm);
  g_out.line("listening on " + o.addr + " port " + std::to_string(listening_port(ccm)));
  Clients clients(ccm, o);
  long events = 0;
  while (!g_stop && (o.count == 0 || events < o.count)) {
    ccm_msg_t* m = nullptr;
    if (ccm_receive_message(ccm, 1, &m, &err) > 0 && m != nullptr) {
      if (handle(ccm, o, clients, m)) events++;
      ccm_msg_free(ccm, m);
    }
    clients.close_idle();
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Descriptors 0-2 open before anything else is, so that no pipe or socket takes their place.
  ensure_standard_descriptors();
  signal(SIGPIPE, SIG_IGN);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  Options o;
  if (!parse(argc, argv, &o)) {
    printf("%s", kUsage);
    return 2;
  }
  if (o.help) {
    printf("%s%s", kUsage, kHelp);
    return 0;
  }
  raise_descriptor_limit();
  const sigset_t stops = catch_stop_signals();

  ccm_app_context_head app{};
  app.running_mode = 0;
  ccm_context_t* ccm = nullptr;
  ccm_error_t err{};
  if (ccm_session_open(&app, &ccm, &err) != 0) {
    if (ccm == nullptr) {
      printf("cannot open the connection manager: %s\n", err.msginsert);
    } else {
      printf("cannot start the network thread: %s\n", err.msginsert);
      ccm_session_close(ccm, &err);
    }
    return 2;
  }
  if (ccm_create_listen(ccm, o.addr.c_str(), o.port, kListenBacklog, &err) != 0) {
    printf("cannot listen on %s port %d: %s\n", o.addr.c_str(), o.port, err.msginsert);
    g_exit_status = 2;
  } else {
    fflush(stdout);
    g_out.start();
  }
  pthread_sigmask(SIG_UNBLOCK, &stops, nullptr);

  if (g_exit_status == 0) serve(ccm, o);

  // From here on the process ends within the grace time, whatever blocks.
  begin_stop();
  // Answers still queued get a moment to reach the wire before the connections close.
  for (int i = 0; i < 300 && !ccm_is_all_sendq_empty(ccm); i++) {
    usleep(1000);
  }
  // A close never waits for a client to take what is still unsent.
  ccm_session_close(ccm, &err);
  // A standard output that stays stalled gets the rest of the grace time; the alarm ends the
  // process then, or at the latest here (its writer may never return).
  if (g_exit_status == 0 && !g_out.finish(kStopGraceSecs * 1000)) _exit(g_exit_status);
  return g_exit_status;
}
