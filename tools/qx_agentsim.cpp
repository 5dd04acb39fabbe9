// qx_agentsim: an agent simulator for people who write job scripts and for tests. It listens
// on a loopback address, greets every connection as the scheduling agent does, receives the
// job messages (MELD) that qx_jpmd sends, prints each event in readable form or as one JSON
// object per line, answers, and serves until it is stopped.
//
//   qx_agentsim [--addr ADDRESS] [--port PORT] [--json] [--count N] [--mode MODE]
//
//   --addr   address to listen on (default 127.0.0.1)
//   --port   port to listen on (default 2217; 0 lets the system choose one)
//   --json   one JSON object per event instead of the readable line
//   --count  exit after N events (default: serve until SIGTERM or SIGINT)
//   --mode   normal (default), or a misbehaviour for testing job scripts:
//            silent (never greets), wrong-greeting (greets under another key),
//            no-reply (never answers a job message), close (closes each connection at once)
//   --help   the usage with every flag (also -h); exit status 0
//
// The first line on standard output is "listening on ADDRESS port PORT" with the port
// actually used, so that a script can start the simulator on port 0 and read its port.
// Nothing is written to standard error; the exit status is 0, or 2 for a wrong command line
// or a port that cannot be listened on (the reason is printed on standard output).
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "ccm/ccm.h"
#include "ccm/listen.h"
#include "ccm/net_thread.h"
#include "ccm/receive.h"
#include "ccm/send.h"
#include "ccm/wire.h"

namespace {

enum class Mode { kNormal, kSilent, kWrongGreeting, kNoReply, kClose };

struct Options {
  std::string addr = "127.0.0.1";
  int port = 2217;
  bool json = false;
  long count = 0;  // 0: no limit
  Mode mode = Mode::kNormal;
  bool help = false;  // --help or -h: print the usage with every flag and exit
};

volatile sig_atomic_t g_stop = 0;
void on_stop(int) {
  g_stop = 1;
}

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
    } else if (a == "--port" || a == "--count") {
      const char* v = value();
      char* end = nullptr;
      long n = v != nullptr ? strtol(v, &end, 10) : -1;
      if (v == nullptr || *end != 0 || n < 0 || (a == "--port" && n > 65535)) return false;
      (a == "--port" ? o->port = static_cast<int>(n) : o->count = n);
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
  void print() { printf(json_ ? "{%s}\n" : "%s\n", out_.c_str()); }

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

// Handles one received message; returns true when it was an event.
bool handle(ccm_context_t* ccm, const Options& o, ccm_msg_t* m) {
  if (m->type == CCM_MSG_IPC) {
    if (m->len >= 20 && strncmp(reinterpret_cast<char*>(m->msg_start), "CHANNEL_ACCEPT", 16) == 0) {
      int id;
      memcpy(&id, m->msg_start + 16, sizeof id);
      switch (o.mode) {
        case Mode::kClose:
          ccm_channel_deletebyID(ccm, id);
          ccm_wakeup_network(ccm);
          break;
        case Mode::kSilent:
          break;
        case Mode::kWrongGreeting:
          send_native(ccm, id, kWrongKey, "QX7 agent simulator");
          break;
        default:
          send_native(ccm, id, kGreetingKey, "QX7 agent simulator");
          break;
      }
    }
    return false;
  }
  int channel = m->addr.src_ID;
  if (m->type != CCM_MSG_NAT ||
      !print_event(o, channel, Body{m->msg_start, static_cast<size_t>(m->len)})) {
    return false;
  }
  if (o.mode != Mode::kNoReply) send_native(ccm, channel, kGreetingKey, "OK");
  return true;
}

// The port the listening channel got (the one asked for, or the system's choice for 0).
int listening_port(ccm_context_t* ccm) {
  ccm_channel_t* ch = ccm_channel_getbyName(ccm, "*LISTEN");
  if (ch == nullptr) return -1;
  sockaddr_storage a{};
  socklen_t len = sizeof a;
  int port = -1;
  if (getsockname(ch->s, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
    port = a.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&a)->sin6_port)
                                   : ntohs(reinterpret_cast<sockaddr_in*>(&a)->sin_port);
  }
  ccm_channel_unlock(ccm);
  return port;
}

constexpr char kUsage[] =
    "usage: qx_agentsim [--addr ADDRESS] [--port PORT] [--json] [--count N] "
    "[--mode normal|silent|wrong-greeting|no-reply|close]\n";

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
    "  --help, -h      this help\n"
    "\n"
    "Exit status: 0, or 2 for a wrong command line or a port it cannot use.\n"
    "See qx_agentsim(1).\n";

}  // namespace

int main(int argc, char** argv) {
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
  // Many simultaneous job runs need many descriptors.
  rlimit rl;
  if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
  }

  struct sigaction sa {};
  sa.sa_handler = on_stop;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  // The network thread never sees the stop signals: they interrupt the main thread's wait.
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);

  ccm_app_context_head app{};
  app.running_mode = 0;
  ccm_context_t* ccm = nullptr;
  ccm_error_t err{};
  if (ccm_open(&app, &ccm, &err) != 0) {
    printf("cannot open the connection manager: %s\n", err.msginsert);
    return 2;
  }
  if (ccm_thread_start(ccm, &err) != 0) {
    printf("cannot start the network thread: %s\n", err.msginsert);
    ccm_close(ccm, &err);
    return 2;
  }
  pthread_sigmask(SIG_UNBLOCK, &stops, nullptr);

  int status = 0;
  if (ccm_create_listen(ccm, o.addr.c_str(), o.port, kListenBacklog, &err) != 0) {
    printf("cannot listen on %s port %d: %s\n", o.addr.c_str(), o.port, err.msginsert);
    status = 2;
  } else {
    ccm_wakeup_network(ccm);
    printf("listening on %s port %d\n", o.addr.c_str(), listening_port(ccm));
    long events = 0;
    while (!g_stop && (o.count == 0 || events < o.count)) {
      ccm_msg_t* m = nullptr;
      if (ccm_receive_message(ccm, 1, &m, &err) <= 0 || m == nullptr) continue;
      if (handle(ccm, o, m)) events++;
      ccm_msg_free(ccm, m);
    }
  }

  // Answers still queued get a moment to reach the wire before the connections close.
  for (int i = 0; i < 2000 && !ccm_is_all_sendq_empty(ccm); i++) {
    usleep(1000);
  }
  ccm_thread_stop(ccm);
  pthread_join(ccm->thread, nullptr);
  ccm_channel_lock(ccm);
  ccm_channel_merge_newq(ccm);
  ccm_channel_unlock(ccm);
  ccm_channel_closeall(ccm);
  ccm_close(ccm, &err);
  return status;
}
