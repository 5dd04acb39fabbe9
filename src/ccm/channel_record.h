// The channel record with its connect user context, channel types, flag bits and the bounds of
// what one channel may hold unread. Types only; the operations on channels are in channel.h.
#ifndef QX_CCM_CHANNEL_RECORD_H_
#define QX_CCM_CHANNEL_RECORD_H_

#include <netinet/in.h>
#include <pthread.h>

#include <cstddef>
#include <ctime>

#include "ccm/context_record.h"
#include "ccm/message_record.h"

// Channel types.
inline constexpr int CCM_CHTYPE_NONE = 0;        // accepted connections, socket pairs
inline constexpr int CCM_CHTYPE_LISTEN = 1;      // listening socket "*LISTEN"
inline constexpr int CCM_CHTYPE_SERVER = 3;      // server connection
inline constexpr int CCM_CHTYPE_AGENT = 4;       // agent connection
inline constexpr int CCM_CHTYPE_MESSENGER = 5;   // the messenger's connection to its agent
inline constexpr int CCM_CHTYPE_CP = 6;          // outgoing connection to a server
inline constexpr int CCM_CHTYPE_NOSOCKET = 255;  // not watched, no close notice, not counted
inline constexpr int CCM_CHTYPE_SILENT = -1;     // no close log and no close notice

// Channel flag bits; read and written with atomic operations.
inline constexpr int CCM_CHFLAG_DELETED = 0x01;
inline constexpr int CCM_CHFLAG_NAT_02 = 0x02;  // carried onto dispatched NAT messages
inline constexpr int CCM_CHFLAG_CONNECTING = 0x08;
inline constexpr int CCM_CHFLAG_NOREAD = 0x10;    // the select loop does not watch reading
inline constexpr int CCM_CHFLAG_BINDADDR = 0x40;  // `bind_addr` known, or an "*IPC" channel
// A trusted local partner (ccm_channel_set_local_partner): frames with the "IPC" protocol
// field are taken from this channel only.
inline constexpr int CCM_CHFLAG_LOCAL_PARTNER = 0x100;
// Set by the network thread while it leaves the channel unread because the application has
// not yet taken enough of what came on it (CCM_UNREAD_MAX_*).
inline constexpr int CCM_CHFLAG_RECV_HELD = 0x200;

// What one channel may have received and the application not yet taken: past either bound
// the network thread stops reading the channel (its partner then meets TCP's flow control)
// until the application has taken messages of it. The bytes are those of the messages'
// allocations. One read may complete frames beyond the bound: the frame that the receive
// buffer holds in part (at most kMaxFrameSize) and at most CCM_RECV_READ_AHEAD bytes of
// frames behind it.
inline constexpr int CCM_UNREAD_MAX_MSGS = 1000;
inline constexpr long CCM_UNREAD_MAX_BYTES = 4L * 1024 * 1024;
inline constexpr int CCM_RECV_READ_AHEAD = 8192;

// Message numbers of channel closing.
inline constexpr int CCM_MSGNR_CLOSE_OTHER = 2002040;
inline constexpr int CCM_MSGNR_CLOSE_SERVER = 2000010;
inline constexpr int CCM_MSGNR_CLOSE_AGENT = 2000007;

// Most addresses of a partner that one outgoing connection tries: the first, and the others
// kept in the channel to move on to.
inline constexpr int CCM_CONNECT_ADDRESSES_MAX = 8;

struct ccm_connect_user_context_t {
  char key[32];
  char name[128];
  int client;
  int user;
  ccm_addr_t ccmaddr;
  void* pDelegCred;
  int gss_len;
  unsigned char gss_content[];  // gss_len bytes follow the fixed part
};
// The fixed part: every field but the security token.
inline constexpr size_t CCM_CUC_FIXED_SIZE = offsetof(ccm_connect_user_context_t, gss_content);

struct ccm_channel_t {
  char eyec[16];  // "##CCM#CHANNEL###" until entered, then "#CCMSOCK%.8d"; no terminator
  ccm_channel_t* nxt;
  int type;  // CCM_CHTYPE_*
  int flag;  // CCM_CHFLAG_*
  int s;     // socket; -1 when closed
  int ID;
  int remoteID;
  int port;  // partner port in host byte order
  char name[64];
  char addr[64];                    // partner's numeric address
  char bind_addr[64];               // local numeric address (CCM_CHFLAG_BINDADDR)
  char host[128];                   // host as given to ccm_connect
  ccm_connect_user_context_t* cuc;  // owned; may be null
  int nof_connection;
  time_t connect_timeout_secs;
  time_t connect_timeout;  // recorded deadline; nothing acts on it
  time_t timestamp_last_io;
  int msgnr;  // error recorded by reading or writing, logged on destruction
  char msginsert[CCM_MSGINSERT_SIZE];
  unsigned char* recv_buffer;  // owned
  int recv_size;
  int recv_pos;
  unsigned char* send_buffer;  // owned
  pthread_spinlock_t queue_lock;
  ccm_msg_queue_t sendq;
  ccm_msg_queue_t recvq;
  void* pATctx;
  void* pDelegCred;
  // An outgoing connection's further partner addresses in the order they are tried, each
  // when the one before is refused or unreachable; the family tells each one's length.
  // next_addr_pos == next_addr_count once none is left or the connection came about.
  sockaddr_in6 next_addr[CCM_CONNECT_ADDRESSES_MAX - 1];
  int next_addr_count;
  int next_addr_pos;
  // Messages read from this channel that wait in the context's `recvq` and the bytes they
  // hold (CCM_UNREAD_MAX_*): raised by the network thread, lowered when the application takes
  // one (ccm_receive_message). Read and written with atomic operations.
  int unread_msgs;
  long unread_bytes;
};

#endif  // QX_CCM_CHANNEL_RECORD_H_
