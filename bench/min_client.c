/* min_client: the least a program can do to deliver one job status event to an agent, as a
 * yardstick for qx_jpmd. It connects with a blocking socket, reads the agent's greeting,
 * sends the same MELD frame that qx_jpmd sends for the event, reads the reply and exits.
 * No report, no trace, no retries, no second thread.
 *
 *   min_client IPA=address PNR=port [JNR=n] [TYP=c] [RET=n] [MNR=n] [TXT=text] [TIMEOUT=s]
 *
 * Exit status, as the messenger's: RET for an end event (TYP=E), else 0, whatever happened on
 * the network; 1 for an address that is no IPv4 address. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

enum { kHeader = 48, kPrefix = 63, kBody = 276 };

static void put32(unsigned char* p, unsigned v) {
  for (int i = 0; i < 4; i++)
    p[i] = (unsigned char)(v >> (8 * i));
}
static void put16(unsigned char* p, unsigned v) {
  p[0] = (unsigned char)v;
  p[1] = (unsigned char)(v >> 8);
}

static int read_exact(int s, unsigned char* p, size_t n) {
  while (n > 0) {
    ssize_t r = recv(s, p, n, 0);
    if (r <= 0) return -1;
    p += r;
    n -= (size_t)r;
  }
  return 0;
}

/* Reads one frame into buf (at most size bytes); its length, or -1. */
static long read_frame(int s, unsigned char* buf, size_t size) {
  char digits[9];
  if (read_exact(s, buf, kHeader) != 0) return -1;
  memcpy(digits, buf, 8);
  digits[8] = 0;
  long len = strtol(digits, NULL, 10);
  if (len < kHeader || (size_t)len > size) return -1;
  if (read_exact(s, buf + kHeader, (size_t)len - kHeader) != 0) return -1;
  return len;
}

static const char* arg(int argc, char** argv, const char* key, const char* dflt) {
  size_t n = strlen(key);
  for (int i = 1; i < argc; i++) {
    if (strncmp(argv[i], key, n) == 0 && argv[i][n] == '=') return argv[i] + n + 1;
  }
  return dflt;
}

/* The 63-byte prefix and the 276-byte job status body, as qx_jpmd writes them. */
static void build_frame(unsigned char* f, int job, char type, int ret, int client,
                        const char* text) {
  memset(f, 0, kPrefix + kBody);
  char head[64];
  snprintf(head, sizeof head, "%08dQX7:global001NAT%24s", kPrefix + kBody, "");
  memcpy(f, head, kHeader);
  memcpy(f + 48, "\x01\x08JPAKTJ_R\xFF", 11);
  put32(f + 59, kBody);

  unsigned char* b = f + kPrefix;
  memcpy(b, "MELD    03", 10);
  put16(b + 10, (unsigned short)client);
  put32(b + 20, (unsigned)job);
  b[24] = type == 'E' ? 'E' : 'R';
  size_t n = strnlen(text, 31);
  memcpy(b + 25, text, n);
  memset(b + 26 + n, ' ', 31 - n);
  memset(b + 57, ' ', 32);
  memcpy(b + 57, "12.2.0+build.2108", 17);
  put16(b + 90, 12);
  put16(b + 92, 2);
  memcpy(b + 96, "  ", 2);
  put32(b + 100, (unsigned)ret);

  time_t now = time(NULL);
  struct tm utc;
  gmtime_r(&now, &utc);
  put16(b + 108, (unsigned)utc.tm_year + 1900);
  put16(b + 110, (unsigned)utc.tm_mon + 1);
  put16(b + 112, (unsigned)utc.tm_mday);
  put16(b + 114, (unsigned)utc.tm_hour);
  put16(b + 116, (unsigned)utc.tm_min);
  put16(b + 118, (unsigned)utc.tm_sec);
  put32(b + 124, (unsigned)now);
  put32(b + 128, (unsigned)getpid());
  put32(b + 132, (unsigned)getppid());
  put32(b + 136, (unsigned)getpgrp());
}

int main(int argc, char** argv) {
  const char* type = arg(argc, argv, "TYP", "U");
  int ret = atoi(arg(argc, argv, "RET", "0"));
  int status = type[0] == 'E' ? ret : 0;

  struct sockaddr_in a;
  memset(&a, 0, sizeof a);
  a.sin_family = AF_INET;
  a.sin_port = htons((unsigned short)atoi(arg(argc, argv, "PNR", "0")));
  if (inet_pton(AF_INET, arg(argc, argv, "IPA", "127.0.0.1"), &a.sin_addr) != 1) return 1;
  int s = socket(AF_INET, SOCK_STREAM, 0);
  struct timeval tv = {atoi(arg(argc, argv, "TIMEOUT", "60")), 0};
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  if (connect(s, (struct sockaddr*)&a, sizeof a) != 0) return status;

  unsigned char buf[4096];
  long len = read_frame(s, buf, sizeof buf);
  if (len < kHeader + 2 || buf[kHeader] != 4) {
    close(s);
    return status;
  }
  unsigned char frame[kPrefix + kBody];
  build_frame(frame, atoi(arg(argc, argv, "JNR", "0")), type[0], ret,
              atoi(arg(argc, argv, "MNR", "0")), arg(argc, argv, "TXT", ""));
  if (send(s, frame, sizeof frame, MSG_NOSIGNAL) == (ssize_t)sizeof frame) {
    read_frame(s, buf, sizeof buf);
  }
  close(s);
  return status;
}
