// The context record and the records every part of the connection manager shares with it: the
// head/tail queues, the error record, the context flag bits and message numbers, and the head
// of an application context. Types only; the operations on a context are in context.h.
#ifndef QX_CCM_CONTEXT_RECORD_H_
#define QX_CCM_CONTEXT_RECORD_H_

#include <pthread.h>

#include <cstddef>

#include "ccm/fdset.h"

struct ccm_channel_t;
struct ccm_msg_t;
struct ccm_context_t;

// The application's test for GSS frames: 1 when the frame at msg_start is one (wire.h).
using ccm_gss_classifier_t = int (*)(ccm_context_t* ccm, ccm_msg_t* ccmmsg);

// A singly linked list of channels through their `nxt` member; empty when `head` is null.
struct ccm_channel_queue_t {
  ccm_channel_t* head;
  ccm_channel_t* tail;
};

// A singly linked list of messages through their `nxt` member; empty when `head` is null.
struct ccm_msg_queue_t {
  ccm_msg_t* head;
  ccm_msg_t* tail;
};

// Context flag bits.
inline constexpr int CCM_FLAG_IPV6 = 0x01;             // the host can open IPv6 sockets
inline constexpr int CCM_FLAG_CHANNEL_DELETED = 0x02;  // a channel waits to be destroyed

// Message numbers of the connection manager.
inline constexpr int CCM_MSGNR_ALLOC = 3301;       // a record could not be allocated
inline constexpr int CCM_MSGNR_SYSCALL = 2000102;  // a system call failed
inline constexpr int CCM_MSGNR_THREAD = 2000136;   // the network thread could not be made
inline constexpr int CCM_MSGNR_NO_IPV6 = 2000361;  // the host has no IPv6 support

inline constexpr int CCM_MSGINSERT_SIZE = 1024;

struct ccm_error_t {
  int xerrno;  // left unset by the core; the system error travels in `msginsert`
  int msgnr;
  char msginsert[CCM_MSGINSERT_SIZE];  // fields separated by "|", always terminated
};

struct ccm_context_t {
  char eyec[16];                     // "##CCM_CONEXT####", no terminator
  ccm_channel_queue_t channelq;      // active channels; owned by the network thread
  ccm_channel_queue_t channel_newq;  // entered channels waiting for the next merge
  pthread_spinlock_t channel_lock;
  int flag;  // CCM_FLAG_*; read and written with atomic operations
  pthread_spinlock_t queue_lock;
  ccm_msg_queue_t sendq;
  ccm_msg_queue_t recvq;
  ccm_msg_queue_t msg_freeq;
  ccm_msg_queue_t msgq_inuse;
  ccm_msg_queue_t msgq_2dispatch;
  int nof_freemsg;
  pthread_t thread;
  pthread_attr_t thread_attr;
  int thread_started;  // 1 from a successful ccm_thread_start until ccm_thread_join
  int loop;  // 1 while the network thread shall run; read and written with atomic operations
  int unique_channel_ID;
  int unique_msg_ID;
  ccm_channel_t* signal_channel;  // reserved
  int network_wakeup[2];          // read end, write end; -1 while closed
  int processor_wakeup[2];        // read end, write end; -1 while closed
  // Each context keeps its own application context, GSS classifier and select state, so that
  // any number of contexts, each with its own network thread, can run in one process.
  void* app;                            // the application context given to ccm_open
  ccm_gss_classifier_t gss_classifier;  // set before the network thread starts; null: none
  ccm_select_sets_t select_sets;        // the network thread's alone while it runs
};

// The beginning of every application context handed to `ccm_open`. The connection manager
// reads nothing else of it.
struct ccm_app_context_head {
  char eyec[8];
  int running_mode;
  void* ccm = nullptr;  // the application's connection manager context (for ipc_logger)
};

#endif  // QX_CCM_CONTEXT_RECORD_H_
