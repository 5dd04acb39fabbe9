// The message record with its address record, message types and flag bits. Types only; the
// operations on messages are in message.h.
#ifndef QX_CCM_MESSAGE_RECORD_H_
#define QX_CCM_MESSAGE_RECORD_H_

#include <cstddef>

inline constexpr int CCM_MSG_POOL_SIZE = 32768;  // size class of a pool message
inline constexpr int CCM_MSG_POOL_MAX = 64;      // messages kept in the free pool at most
inline constexpr int CCM_MSG_HEADROOM = 256;     // bytes in front of a fresh `msg_start`

// Message types.
inline constexpr int CCM_MSG_NATIVE = 0;
inline constexpr int CCM_MSG_GSS = 1;
inline constexpr int CCM_MSG_NAT = 2;
inline constexpr int CCM_MSG_IPC = 3;

// Message flag bits.
inline constexpr int CCM_MSGFLAG_CHANNEL_02 = 0x02;  // carried over from channel flag 0x02
inline constexpr int CCM_MSGFLAG_KEEP = 0x08;        // not released when no channel is found
inline constexpr int CCM_MSGFLAG_XML = 0x20;         // body is XML text: no code-page conversion
// Counted among the unread messages of the channel it came on (ccm_channel_t::unread_msgs)
// until the application takes it.
inline constexpr int CCM_MSGFLAG_UNREAD = 0x100;

struct ccm_addr_t {
  char eyec[8];  // "#CCMADDR", no terminator
  int type;
  int dst_ID;
  char dst_addr[64];
  char dst_name[64];
  int dst_acv;
  int src_ID;
  char src_addr[64];
  char src_name[64];
  int src_acv;
  int src_type;
};
static_assert(sizeof(ccm_addr_t) == 288);
static_assert(offsetof(ccm_addr_t, dst_addr) == 16 && offsetof(ccm_addr_t, dst_name) == 80);
static_assert(offsetof(ccm_addr_t, dst_acv) == 144 && offsetof(ccm_addr_t, src_ID) == 148);
static_assert(offsetof(ccm_addr_t, src_addr) == 152 && offsetof(ccm_addr_t, src_name) == 216);
static_assert(offsetof(ccm_addr_t, src_acv) == 280 && offsetof(ccm_addr_t, src_type) == 284);

struct ccm_msg_t {
  char eyec[16];  // "##CCM#MESSAGE###", no terminator
  ccm_msg_t* nxt;
  ccm_addr_t addr;
  int type;                    // CCM_MSG_*
  unsigned char protocol_key;  // key byte of a received native body; 0 otherwise
  char filler[7];
  int flag;  // CCM_MSGFLAG_*
  unsigned long ID;
  int size;  // size class; the data area holds twice this many bytes
  int len;   // bytes of message data at `msg_start`
  int pos;   // bytes already handed to the socket
  int passfd;
  int agentID;
  void* pATctx;
  void* pDelegCred;
  size_t control_len;
  unsigned char control_data[256];
  unsigned char* msg_start;
  unsigned char* buffer1;  // start of the data area
  unsigned char* buffer2;  // buffer1 + size
  unsigned long filler2aligne;
  unsigned char buffer[];  // the data area, 2 * size bytes
};
static_assert(offsetof(ccm_msg_t, buffer) % alignof(std::max_align_t) == 0,
              "the data area must be aligned for any record written into it");

#endif  // QX_CCM_MESSAGE_RECORD_H_
