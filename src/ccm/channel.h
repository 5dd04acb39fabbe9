// Channel table: one channel per socket of the connection manager, with its kind, state bits,
// partner address, receive buffer and own message queues, and the operations that create,
// enter, find, delete and destroy channels.
//
// Ownership: the context owns its channels. A new channel (`ccm_channel_new_entry`) belongs to
// its creator until it is entered (`ccm_channel_chain`) or destroyed. Entered channels wait in
// `channel_newq` until the network thread merges them into `channelq`, which the network thread
// owns while it runs. A channel owns its connect user context, buffers and queued messages.
//
// Threads: any thread may create, enter, search and delete. The three searches return holding
// the context's `channel_lock` when they find a channel (release it with
// `ccm_channel_unlock`), and holding nothing when they do not. Destroying deleted channels is
// the network thread's work; `ccm_channel_closeall` is for the main thread after the join.
#ifndef QX_CCM_CHANNEL_H_
#define QX_CCM_CHANNEL_H_

#include <netinet/in.h>
#include <pthread.h>

#include <cstddef>
#include <ctime>

#include "ccm/context.h"
#include "ccm/message.h"

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

// Creates a zero-filled channel with the next ID and name "*ID<n>", in no list.
// 0 with it in *ccmch, or -1 with `ccmerr` filled (3301 "CREATE_CHANNEL").
int ccm_channel_new_entry(ccm_context_t* ccm, ccm_channel_t** ccmch, ccm_error_t* ccmerr);
// Stamps the channel's eye-catcher and appends it to `channel_newq`. 0.
int ccm_channel_chain(ccm_context_t* ccm, ccm_channel_t* ccmch);

// Searches for a live (not deleted) channel. When found, `channel_lock` stays held.
ccm_channel_t* ccm_channel_getbyID(ccm_context_t* ccm, int ID);              // channelq, newq
ccm_channel_t* ccm_channel_getbyRemoteID(ccm_context_t* ccm, int ID);        // channelq only
ccm_channel_t* ccm_channel_getbyName(ccm_context_t* ccm, const char* name);  // channelq, newq

// 1 or 0; no lock stays held.
int ccm_channel_existbyID(ccm_context_t* ccm, int ID);
int ccm_channel_existbyName(ccm_context_t* ccm, const char* name);
// Copies the partner address (`addr`, 64 bytes with terminator) of the channel found by ID
// (when ID >= 1) or else by name into `ip`; 0, or -1 when none is found.
int ccm_channel_get_ip(ccm_context_t* ccm, int ID, const char* name, char* ip, ccm_error_t* ccmerr);

// Marks a channel deleted (and the context as holding a deleted channel). 0.
int ccm_channel_delete(ccm_context_t* ccm, ccm_channel_t* ccmch);
int ccm_channel_deletebyID(ccm_context_t* ccm, int ID);
int ccm_channel_deletebyName(ccm_context_t* ccm, const char* name);

// Releases a channel that stands in no list; unless its type is 255 or -1 a "CHANNEL_CLOSE"
// notice goes to the context's `recvq`. 0.
int ccm_channel_destroy(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr);
// Destroys every channel of `channelq` (after the network thread ended). 0.
int ccm_channel_closeall(ccm_context_t* ccm);
// Unlinks and destroys the deleted channels of `channelq`, keeping the others in order.
// Returns 0; `ndestroyed`, when given, receives the number destroyed.
int ccm_destroy_deleted_channels(ccm_context_t* ccm, int* ndestroyed = nullptr);
// Marks a channel as a trusted local partner: the other end of a socket pair or of a
// local-domain connection that the application made to exchange internal messages with a
// program of its own. Only from such a channel are frames with the "IPC" protocol field taken;
// from any other they are refused like a malformed frame. (The notices "CHANNEL_CLOSE" and
// "CHANNEL_ACCEPT" are made only inside the process and refused from every channel.)
// 0, or -1 with `ccmerr` filled and the channel unchanged when its socket is not a
// local-domain socket. The pair maker (ccm_channel_create_pair) marks both its channels.
int ccm_channel_set_local_partner(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr);

// Records the socket's local address in `bind_addr`; 0, or -1 with `ccmerr` filled.
int ccm_channel_bindaddr_inquire(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr);

#endif  // QX_CCM_CHANNEL_H_
