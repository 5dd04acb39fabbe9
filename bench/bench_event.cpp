// One whole event, from process start to exit, against a local agent that answers at once:
// qx_jpmd beside min_client, a minimal plain-socket client that makes the same exchange and
// sends the same frame. The two run alternately, for a start event and for an end event; the
// summary gives, per event kind, the median and 95th percentile of each, their ratio, and each
// program's peak memory (VmHWM, read in separate traced runs at the moment the process exits).
// The Google Benchmark cases that follow time each program on its own.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes native_frame(const char* text) {
  char h[64];
  size_t n = strlen(text);
  snprintf(h, sizeof h, "%08zuQX7:global001NAT%24s", 48 + 2 + n, "");
  Bytes f(h, h + 48);
  f.push_back(4);
  f.push_back(static_cast<unsigned char>(n));
  f.insert(f.end(), text, text + n);
  return f;
}

// The agent: one epoll loop that greets every connection at once and answers every frame.
// It keeps the last job message frame it received.
class Agent {
 public:
  Agent() {
    listen_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(listen_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listen_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(listen_, 128);
    socklen_t len = sizeof a;
    getsockname(listen_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
    ep_ = epoll_create1(EPOLL_CLOEXEC);
    add(listen_);
    if (pipe2(stop_, O_CLOEXEC) == 0) add(stop_[0]);
    thread_ = std::thread([this] { loop(); });
  }
  ~Agent() {
    if (write(stop_[1], "x", 1) != 1) {
    }
    thread_.join();
    for (auto& [fd, buf] : conns_)
      close(fd);
    close(listen_);
    close(ep_);
    close(stop_[0]);
    close(stop_[1]);
  }
  int port() const { return port_; }
  Bytes last_frame() {
    while (busy_.exchange(true)) {
    }
    Bytes f = last_;
    busy_ = false;
    return f;
  }

 private:
  void add(int fd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(ep_, EPOLL_CTL_ADD, fd, &ev);
  }
  void loop() {
    const Bytes greeting = native_frame("agent"), reply = native_frame("OK");
    epoll_event evs[64];
    for (;;) {
      int n = epoll_wait(ep_, evs, 64, -1);
      for (int i = 0; i < n; i++) {
        int fd = evs[i].data.fd;
        if (fd == stop_[0]) return;
        if (fd == listen_) {
          int c;
          while ((c = accept4(listen_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0) {
            send(c, greeting.data(), greeting.size(), MSG_NOSIGNAL);
            conns_[c];
            add(c);
          }
          continue;
        }
        unsigned char buf[4096];
        ssize_t r = recv(fd, buf, sizeof buf, 0);
        if (r <= 0) {
          epoll_ctl(ep_, EPOLL_CTL_DEL, fd, nullptr);
          close(fd);
          conns_.erase(fd);
          continue;
        }
        Bytes& in = conns_[fd];
        in.insert(in.end(), buf, buf + r);
        while (in.size() >= 48) {
          long len = strtol(std::string(in.begin(), in.begin() + 8).c_str(), nullptr, 10);
          if (len < 48 || in.size() < static_cast<size_t>(len)) break;
          while (busy_.exchange(true)) {
          }
          last_.assign(in.begin(), in.begin() + len);
          busy_ = false;
          in.erase(in.begin(), in.begin() + len);
          send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
      }
    }
  }

  int listen_ = -1, ep_ = -1, port_ = 0;
  int stop_[2] = {-1, -1};
  std::map<int, Bytes> conns_;
  std::atomic<bool> busy_{false};
  Bytes last_;
  std::thread thread_;
};

struct Sample {
  double ms = 0;
  long hwm_kb = 0;
  int status = -1;
};

double now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

// An event kind: its command-line arguments and the exit status both programs give for it.
struct EventKind {
  const char* name;
  std::vector<const char*> args;
  int status;
};

const EventKind kStart{"start", {"IPA=127.0.0.1", "TYP=S", "JNR=1", "TXT=benchmark"}, 0};
const EventKind kEnd{"end", {"IPA=127.0.0.1", "TYP=E", "JNR=1", "RET=3", "TXT=benchmark"}, 3};

// Starts `program` for one event with its standard output on /dev/null; `traced` makes the
// child ask to be traced before it runs the program.
pid_t start_event(const std::string& program, int port, const EventKind& kind, bool traced) {
  std::string pnr = "PNR=" + std::to_string(port);
  std::vector<const char*> argv = {program.c_str(), pnr.c_str()};
  argv.insert(argv.end(), kind.args.begin(), kind.args.end());
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    if (traced) ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execv(program.c_str(), const_cast<char**>(argv.data()));
    _exit(127);
  }
  return pid;
}

int exit_status(int st) {
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// Times one event, from the fork to the child's exit.
Sample time_event(const std::string& program, int port, const EventKind& kind) {
  Sample s;
  double start = now_ms();
  pid_t pid = start_event(program, port, kind, false);
  int st = 0;
  waitpid(pid, &st, 0);
  s.ms = now_ms() - start;
  s.status = exit_status(st);
  return s;
}

// The peak memory of one event: VmHWM read when the process stops on its way out, before
// its memory is released (an exited process no longer shows it). Traced, so not timed.
Sample measure_event_memory(const std::string& program, int port, const EventKind& kind) {
  Sample s;
  pid_t pid = start_event(program, port, kind, true);
  int st = 0;
  waitpid(pid, &st, 0);  // stopped at the start of the new program
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL);
  ptrace(PTRACE_CONT, pid, nullptr, nullptr);
  while (waitpid(pid, &st, 0) == pid && WIFSTOPPED(st)) {
    int sig = 0;
    if (st >> 8 == (SIGTRAP | (PTRACE_EVENT_EXIT << 8))) {
      char path[64];
      snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
      if (FILE* f = fopen(path, "r")) {
        char line[256];
        while (fgets(line, sizeof line, f) != nullptr) {
          if (strncmp(line, "VmHWM:", 6) == 0) s.hwm_kb = atol(line + 6);
        }
        fclose(f);
      }
    } else {
      sig = WSTOPSIG(st);  // a signal meant for the program goes on to it
    }
    ptrace(PTRACE_CONT, pid, nullptr, reinterpret_cast<void*>(static_cast<long>(sig)));
  }
  s.status = exit_status(st);
  return s;
}

double percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5))];
}

std::string bin(const char* name) {
  return std::string(QX_BIN_DIR) + "/" + name;
}

// The frame without its time stamp and process IDs, which differ from run to run.
Bytes comparable(Bytes f) {
  if (f.size() < 63 + 140) return f;
  std::fill(f.begin() + 63 + 108, f.begin() + 63 + 140, 0);
  return f;
}

void compare(const EventKind& kind, int rounds) {
  Agent agent;
  const std::string programs[2] = {bin("qx_jpmd"), bin("min_client")};
  std::vector<double> ms[2];
  long hwm[2] = {0, 0};
  Bytes frames[2];
  int failed = 0;
  for (int r = 0; r < rounds; r++) {
    for (int p = 0; p < 2; p++) {
      Sample s = time_event(programs[p], agent.port(), kind);
      failed += s.status != kind.status;
      ms[p].push_back(s.ms);
      frames[p] = agent.last_frame();
    }
  }
  for (int r = 0; r < 5; r++) {
    for (int p = 0; p < 2; p++) {
      Sample s = measure_event_memory(programs[p], agent.port(), kind);
      failed += s.status != kind.status;
      hwm[p] = std::max(hwm[p], s.hwm_kb);
    }
  }
  double med[2], p95[2];
  for (int p = 0; p < 2; p++) {
    med[p] = percentile(ms[p], 0.5);
    p95[p] = percentile(ms[p], 0.95);
  }
  printf("one whole %s event, %d rounds, run alternately (milliseconds)\n", kind.name, rounds);
  printf("  %-10s median %7.3f  p95 %7.3f  VmHWM %6ld kB\n", "qx_jpmd", med[0], p95[0], hwm[0]);
  printf("  %-10s median %7.3f  p95 %7.3f  VmHWM %6ld kB\n", "min_client", med[1], p95[1], hwm[1]);
  printf("  ratio qx_jpmd / min_client: median %.2f  p95 %.2f\n", med[0] / med[1], p95[0] / p95[1]);
  printf("  same frame apart from time and process IDs: %s; failed runs: %d\n\n",
         comparable(frames[0]) == comparable(frames[1]) ? "yes" : "NO", failed);
}

void BM_event(benchmark::State& state, const char* name) {
  Agent agent;
  const std::string program = bin(name);
  for (auto _ : state) {
    Sample s = time_event(program, agent.port(), kStart);
    state.SetIterationTime(s.ms / 1e3);
  }
  state.counters["VmHWM_kB"] =
      static_cast<double>(measure_event_memory(program, agent.port(), kStart).hwm_kb);
}
BENCHMARK_CAPTURE(BM_event, qx_jpmd, "qx_jpmd")->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_event, min_client, "min_client")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // QX_BENCH_ROUNDS sets the rounds of each comparison (200 unless given).
  const char* rounds = getenv("QX_BENCH_ROUNDS");
  const int n = rounds != nullptr && atoi(rounds) > 0 ? atoi(rounds) : 200;
  compare(kStart, n);
  compare(kEnd, n);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
