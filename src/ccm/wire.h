// Wire format of the connection manager: the protocol header in front of every frame, the
// keyed entries of native and NAT bodies, and the classification and parsing of a received
// frame into a message.
//
// A frame is the 48-byte text header (common/protocol_header.h) followed by a body. The body
// of a native or NAT frame is a sequence of entries: a key byte, a length in one of four
// forms (1 byte; 2 or 4 bytes least significant first; 7 decimal digits) and that many data
// bytes. Every length read from a frame is checked against the frame before it is used: a
// frame that lies about its size is rejected, never read beyond.
//
// Ownership: the operations work on messages the caller holds; nothing is allocated here.
//
// Threads: the writers run on the thread that builds a message; length checks,
// classification and parsing run on the network thread for the frames it reads. The GSS
// classifier hook is set once by the application before the network thread starts.
#ifndef QX_CCM_WIRE_H_
#define QX_CCM_WIRE_H_

#include <cstddef>

#include "ccm/channel.h"
#include "ccm/context.h"
#include "ccm/message.h"
#include "common/protocol_header.h"

// Largest frame this system sends or accepts, header included. Frames of this system carry
// at most a pool message (64 KiB) and the occasional huge message; 16 MiB leaves room for
// those many times over while a forged length can never make the reader grow a receive
// buffer or allocate a message (twice the frame size) beyond a few dozen MiB.
inline constexpr int kMaxFrameSize = 16 * 1024 * 1024;

// Entry keys of native and NAT bodies.
enum : unsigned char {
  kKeyDstName = 0x01,     // short form, blank-padded name
  kKeyDstAcv = 0x02,      // short form, 4 bytes as they are in memory
  kKeyDstAddr = 0x03,     // short form, address text
  kKeyNative4 = 0x04,     // short form, native payload
  kKeyNative7 = 0x07,     // short form, native payload
  kKeyNativeSemi = 0x3B,  // 16-bit form, native payload
  kKeyNativeA = 0x41,     // decimal form, native payload
  kKeyNativeD = 0x44,     // decimal form, native payload
  kKeyNativeF9 = 0xF9,    // 16-bit form, native payload
  kKeySrcBlock = 0xFD,    // 16-bit form, short entries 0x01, 0x02, 0x03 for the source
  kKeyNat16 = 0xFE,       // 16-bit form, NAT payload
  kKeyNat32 = 0xFF,       // 32-bit form, NAT payload
};

// Length forms, as the `keylen` argument of extract_protocol_data.
enum : int {
  kFormShort = 1,
  kFormU16 = 2,
  kFormU32 = 4,
  kFormDecimal = 7,
};

// Writes the header at msg_start: cLength = len ("%.8d"), "QX7:global", "001", the first
// three characters of `protocol` (blank-padded), blank coding and session. The caller has
// already moved msg_start 48 bytes back and added 48 to len. Returns 0, or -1 (nothing
// written) when len does not fit eight digits.
int ccm_msg_set_protocol_header(ccm_msg_t* ccmmsg, const char* protocol);

// Writes the native entry 0x04, len, data at msg_start and sets the message's len to len + 2.
// Only key 4 and 0 <= len <= 255 write anything. Returns null.
char* ccm_msg_write_native_data(ccm_msg_t* ccmmsg, char key, char* data, int len);

// Puts the destination entries and the 0xFF payload entry in front of the payload at
// msg_start/len (into the head room) and appends the source block behind it, from the
// message's address record. msg_start/len then describe the whole body. Returns 0, or -1
// with the message unchanged when the head room or the data area is too small.
int cmm_msg_write_sr_data(ccm_msg_t* ccmmsg);

// Internal messages need no prefix of their own. Returns 0 and changes nothing.
int ccm_msg_set_ipc_header(ccm_msg_t* ccmmsg, size_t len);

// The frame length announced by the 8 bytes at `buffer`, read as a decimal number. Text
// that is no number reads as 0, a negative number as 0. The reader uses
// ccm_get_valid_msg_length instead.
size_t ccm_get_msg_length(ccm_context_t* ccm, ccm_channel_t* ccmch, unsigned char* buffer);

// The frame length announced by the 8 bytes at `buffer` when they are 8 decimal digits
// giving 48 to kMaxFrameSize; -1 otherwise. No tracing, no side effects.
int ccm_check_msg_length(const unsigned char* buffer);

// As ccm_check_msg_length, for the reader of a channel: an invalid length is traced and
// recorded as a receive error (2002036) in the channel and, when given, in `ccmerr`, so
// that the reader deletes the channel instead of waiting for a frame that never fits.
int ccm_get_valid_msg_length(ccm_context_t* ccm, ccm_channel_t* ccmch, const unsigned char* buffer,
                             ccm_error_t* ccmerr);

// For the entry at `src` (key byte first) with length form `keylen` (1, 2, 4 or 7), returns
// the entry's total size and, when `dst` is not null, moves its data bytes to `dst` (the
// areas may overlap). The caller makes sure that the whole entry lies inside its frame.
// Returns -1 for an unknown form.
int extract_protocol_data(const unsigned char* src, int keylen, unsigned char* dst);

// Parses the body at msg_start/len (header removed) into the message: address fields,
// type, protocol_key, and msg_start/len describing the payload. 0, or -1 for a body with an
// unknown key or an entry that does not fit the body (recorded like an invalid length).
int ccm_parse_native_message(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_msg_t* ccmmsg,
                             ccm_error_t* ccmerr);

// Classifies a received frame (msg_start at the header, len = frame length): IPC frames lose
// their header, GSS frames (as the application's classifier says) keep it, all others are
// parsed. 0, or -1 when the frame is invalid. `ccmch` may be null (no channel to report to).
int ccm_classify_message(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_msg_t* ccmmsg,
                         ccm_error_t* ccmerr);

// Code-page hook for received NAT payloads: payloads are carried byte for byte. Returns 0.
int msgconv_ToHost(ccm_context_t* ccm, ccm_msg_t* ccmmsg);

// Sets the context's test for GSS frames (ccm_gss_classifier_t, context.h), before its network
// thread starts. Without a classifier set (or after setting null) no frame is a GSS frame.
void ccm_set_gss_classifier(ccm_context_t* ccm, ccm_gss_classifier_t hook);

#endif  // QX_CCM_WIRE_H_
