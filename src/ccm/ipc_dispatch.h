// The internal messages beyond the close notice: the accept notice, routed NAT messages,
// passed descriptors and log requests; the table that dispatches a received internal message
// to its handler by type; the logger that sends log entries to the local agent process; and
// the hand-over of a socket descriptor to a partner process.
//
// Record layout: every record begins with the 16-byte type name (ipcmsg_header_t); integers
// are in host byte order, since the partner runs on the same host. The offsets below are fixed
// and checked at compile time.
//
// Ownership: `process_IPC_message` leaves the message with its caller. `ipc_logger` and
// `send_file_descriptor` build their own messages and hand them to the send path.
//
// Threads: `process_IPC_message` runs on the thread that received the message; it remembers
// the application context (one value for the process) for `ipc_logger`, which any thread may
// call once that has happened. `send_file_descriptor` may be called from any thread.
#ifndef QX_CCM_IPC_DISPATCH_H_
#define QX_CCM_IPC_DISPATCH_H_

#include <cstddef>

#include "ccm/context.h"
#include "ccm/ipc.h"
#include "ccm/message.h"

inline constexpr char IPCMSG_ROUTENAT[] = "ROUTENAT";
inline constexpr char IPCMSG_PASSFD[] = "PASSFD";
inline constexpr char IPCMSG_LOGGING[] = "LOGGING";

inline constexpr char IPC_AGENT_DESTINATION[] = "*IPC(AGENT)";
inline constexpr int CCM_MSGNR_IPC_SOURCE = 2000033;
inline constexpr int CCM_MSGNR_PASSFD = 2003060;

// "CHANNEL_ACCEPT": a listening channel accepted a connection, now the channel `ID`.
struct ipcmsg_channel_accept_t {
  ipcmsg_header_t head;
  int ID;
};
static_assert(offsetof(ipcmsg_channel_accept_t, ID) == 16 && sizeof(ipcmsg_channel_accept_t) == 20);

// "ROUTENAT": a NAT message routed through the local agent process: its address record, the
// payload length and (from IPCMSG_ROUTENAT_MESSAGE on) the payload.
struct ipcmsg_routenat_t {
  ipcmsg_header_t head;
  ccm_addr_t addr;
  int len;
};
inline constexpr size_t IPCMSG_ROUTENAT_MESSAGE = 308;
static_assert(offsetof(ipcmsg_routenat_t, addr) == 16 && offsetof(ipcmsg_routenat_t, len) == 304);
static_assert(sizeof(ipcmsg_routenat_t) == IPCMSG_ROUTENAT_MESSAGE);

// "PASSFD": a socket descriptor handed to the partner; the descriptor itself travels as
// SCM_RIGHTS control data of the message, `fd` is its number in the sending process.
struct ipcmsg_passfd_t {
  ipcmsg_header_t head;
  int fd;
  int agentID;
  int listenerID;
  char name[128];  // terminated
};
static_assert(offsetof(ipcmsg_passfd_t, fd) == 16 && offsetof(ipcmsg_passfd_t, agentID) == 20);
static_assert(offsetof(ipcmsg_passfd_t, listenerID) == 24 && offsetof(ipcmsg_passfd_t, name) == 28);
static_assert(sizeof(ipcmsg_passfd_t) == 156);

// "LOGGING": a numbered log entry for the local agent process to write.
struct ipcmsg_logging_t {
  ipcmsg_header_t head;
  int msgnr;
  char msginsert[1024];  // terminated; longer texts are cut to 1023 characters
};
static_assert(offsetof(ipcmsg_logging_t, msgnr) == 16 &&
              offsetof(ipcmsg_logging_t, msginsert) == 20);
static_assert(sizeof(ipcmsg_logging_t) == 1044);

// A handler of an internal message: the application context and the message; the message
// stays with the caller.
typedef int ipc_handler_t(void* pcx, ccm_msg_t* ccmmsg);

struct sr_function_t {
  char name[CCM_IPC_TYPE_SIZE];  // type name, NUL-padded; empty in the last entry
  ipc_handler_t* function_addr;
};

// The handlers by type; the entry with the empty name ends the table and handles every type
// the table lacks.
extern const sr_function_t ipc_function_list[];

// Names of the control data types, by index 0..6, and an empty entry.
extern const char control_data_type_text[8][16];

// Remembers `pcx` for ipc_logger and calls the handler whose name equals the message's 16
// type bytes (a message shorter than its type field matches no entry). The handler's result.
int process_IPC_message(void* pcx, ccm_context_t* ccm, ccm_msg_t* ccmmsg);

// Does nothing; 0.
int process_ipc_channel_close(void* pcx, ccm_msg_t* ccmmsg);
// Log that the type is unknown (or not implemented) and who sent it; -1.
int process_ipc_unknown(void* pcx, ccm_msg_t* ccmmsg);
int process_ipc_not_implemented(void* pcx, ccm_msg_t* ccmmsg);

// A logger for __log_set_logger: sends the entry as a "LOGGING" message to "*IPC(AGENT)" on
// the connection manager of the remembered application context. 0; -1 with nothing sent when
// no application context (or no connection manager in it) was remembered, or no message can
// be had.
int ipc_logger(int msgnr, const char* msginsert);

// Hands the descriptor `fd` to the partner channel named `destination` in a "PASSFD" message.
// 0; -1 with nothing sent when no message can be had or it cannot be sent.
int send_file_descriptor(ccm_context_t* ccm, const char* destination, int fd, int listenerID,
                         int agentID, const char* name);

#endif  // QX_CCM_IPC_DISPATCH_H_
