// Throughput of the connection manager over loopback TCP, in messages and bytes per second,
// for small (276-byte) and pool-size (32 KiB) payloads, in both directions:
//   CcmSend    - the application sends internal messages; a plain socket takes the frames.
//   CcmReceive - a plain socket writes the frames; the application receives the messages.
//   Plain      - the same frames between two plain blocking sockets (a writer and a reader
//                thread), for comparison in the same run.
// Each iteration moves a batch of frames and waits until the last one has arrived.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "ccm/ccm.h"
#include "common/protocol_header.h"

namespace {

constexpr int kBatch = 64;

// A frame as it travels: internal header and `payload` bytes.
std::vector<char> make_frame(int payload) {
  std::vector<char> f(kProtocolHeaderSize + payload, 'p');
  char head[64];  // room for any int in the length field
  std::snprintf(head, sizeof head, "%.8d%-10s%-3s%-3s%-24s", kProtocolHeaderSize + payload,
                kProtoEyeCatch, kProtoVersion, "IPC", "");
  std::memcpy(f.data(), head, kProtocolHeaderSize);
  return f;
}

bool read_exactly(int fd, char* buf, size_t n) {
  while (n > 0) {
    const ssize_t r = recv(fd, buf, n, MSG_WAITALL);
    if (r <= 0) return false;
    buf += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

bool write_all(int fd, const char* buf, size_t n) {
  while (n > 0) {
    const ssize_t w = send(fd, buf, n, MSG_NOSIGNAL);
    if (w <= 0) return false;
    buf += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

int listening_socket(int* port) {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  listen(s, 4);
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  *port = ntohs(a.sin_port);
  return s;
}

int connect_to(int port) {
  const int c = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a);
  return c;
}

// One connection manager with its network thread, listening on loopback, and one plain
// client connected to it: `peer` is the plain end, `channel` the accepted channel's ID.
struct CcmLink {
  ccm_app_context_head app{};
  ccm_context_t* ccm = nullptr;
  int channel = -1;
  int peer = -1;

  CcmLink() {
    app.running_mode = 3;
    ccm_error_t err{};
    if (ccm_session_open(&app, &ccm, &err) != 0) return;
    if (ccm_create_listen(ccm, "127.0.0.1", 0, 4, &err) != 0) return;
    sockaddr_in a{};
    socklen_t len = sizeof a;
    if (const ccm_found_channel l = ccm_found_channel::by_name(ccm, "*LISTEN")) {
      getsockname(l->s, reinterpret_cast<sockaddr*>(&a), &len);
    }
    ccm_wakeup_network(ccm);
    peer = connect_to(ntohs(a.sin_port));
    for (int tries = 0; tries < 20 && channel < 0; ++tries) {
      ccm_msg_t* m = nullptr;
      if (ccm_receive_message(ccm, 1, &m, &err) == 1) {
        if (std::strcmp(reinterpret_cast<char*>(m->msg_start), "CHANNEL_ACCEPT") == 0) {
          std::memcpy(&channel, m->msg_start + 16, sizeof channel);
        }
        ccm_msg_free(ccm, m);
      }
    }
  }
  ~CcmLink() {
    if (peer >= 0) close(peer);
    ccm_error_t err{};
    ccm_session_close(ccm, &err);
  }
  CcmLink(const CcmLink&) = delete;
  CcmLink& operator=(const CcmLink&) = delete;
};

CcmLink& link() {
  static CcmLink l;
  return l;
}

void report(benchmark::State& state, int payload) {
  state.SetItemsProcessed(state.iterations() * kBatch);
  state.SetBytesProcessed(state.iterations() * kBatch * (kProtocolHeaderSize + payload));
}

void BM_CcmSend(benchmark::State& state) {
  const int payload = static_cast<int>(state.range(0));
  CcmLink& l = link();
  if (l.channel < 0) {
    state.SkipWithError("no connection");
    return;
  }
  std::vector<char> sink(static_cast<size_t>(kBatch) * (kProtocolHeaderSize + payload));
  ccm_error_t err{};
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      ccm_msg_t* m = ccm_msg_alloc(l.ccm, &err);
      std::memset(m->msg_start, 'p', payload);
      m->len = payload;
      ccm_setaddr(m, l.channel, 0, "", "", 0);
      send_IPC_message(l.ccm, m);
    }
    if (!read_exactly(l.peer, sink.data(), sink.size())) state.SkipWithError("peer read failed");
  }
  report(state, payload);
}

void BM_CcmReceive(benchmark::State& state) {
  const int payload = static_cast<int>(state.range(0));
  CcmLink& l = link();
  if (l.channel < 0) {
    state.SkipWithError("no connection");
    return;
  }
  std::vector<char> batch;
  const std::vector<char> f = make_frame(payload);
  for (int i = 0; i < kBatch; ++i)
    batch.insert(batch.end(), f.begin(), f.end());
  ccm_error_t err{};
  for (auto _ : state) {
    // The network thread drains the socket on its own, so the whole batch can be written first.
    if (!write_all(l.peer, batch.data(), batch.size())) state.SkipWithError("peer write failed");
    for (int got = 0; got < kBatch;) {
      ccm_msg_t* m = nullptr;
      const int r = ccm_receive_message(l.ccm, 5, &m, &err);
      if (r < 0) {
        state.SkipWithError("receive failed");
        break;
      }
      if (r == 1) {
        ccm_msg_free(l.ccm, m);
        got++;
      }
    }
  }
  report(state, payload);
}

// The same frames between two plain blocking sockets: a reader thread takes each frame by its
// header and announced length, as a simple blocking server would.
void BM_Plain(benchmark::State& state) {
  const int payload = static_cast<int>(state.range(0));
  int port = 0;
  const int ls = listening_socket(&port);
  const int writer = connect_to(port);
  const int reader = accept(ls, nullptr, nullptr);
  close(ls);
  std::atomic<long> frames{0};
  std::thread t([&] {
    std::vector<char> buf(kProtocolHeaderSize + payload);
    while (read_exactly(reader, buf.data(), kProtocolHeaderSize)) {
      const int len = std::atoi(std::string(buf.data(), 8).c_str());
      if (!read_exactly(reader, buf.data(), len - kProtocolHeaderSize)) break;
      frames.fetch_add(1, std::memory_order_release);
    }
  });
  const std::vector<char> f = make_frame(payload);
  long target = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i)
      write_all(writer, f.data(), f.size());
    target += kBatch;
    while (frames.load(std::memory_order_acquire) < target)
      std::this_thread::yield();
  }
  shutdown(writer, SHUT_WR);
  t.join();
  close(writer);
  close(reader);
  report(state, payload);
}

BENCHMARK(BM_CcmSend)->Arg(276)->Arg(32768)->UseRealTime();
BENCHMARK(BM_CcmReceive)->Arg(276)->Arg(32768)->UseRealTime();
BENCHMARK(BM_Plain)->Arg(276)->Arg(32768)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
