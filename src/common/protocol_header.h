// Protocol header: the 48-byte text header that stands in front of every frame on a
// connection, and the small operations of the older services that work on a bare header.
//
// Every field is ASCII text without a terminator, at a fixed offset:
//   cLength     0  8  total length of the frame, header included, 8 decimal digits
//   cEyeCatch   8 10  "QX7:global"
//   cVersion   18  3  "001"
//   cProtocol  21  3  "NAT", "GSS" or "IPC"
//   cCoding    24  8  blanks, or the coding name of a GSS frame
//   cSessionId 32 16  blanks
//
// The operations work in the caller's memory and keep no state; any thread may call them.
#ifndef QX_COMMON_PROTOCOL_HEADER_H_
#define QX_COMMON_PROTOCOL_HEADER_H_

#include <cstddef>

struct QX7_PROTOCOL_HEADER {
  char cLength[8];
  char cEyeCatch[10];
  char cVersion[3];
  char cProtocol[3];
  char cCoding[8];
  char cSessionId[16];
};

// Offsets and sizes on the wire. The record above has only character fields, so it has no
// padding; the assertions keep it that way.
inline constexpr int kProtocolHeaderSize = 48;
inline constexpr int kProtoLengthOffset = 0;
inline constexpr int kProtoLengthSize = 8;
inline constexpr int kProtoEyeCatchOffset = 8;
inline constexpr int kProtoEyeCatchSize = 10;
inline constexpr int kProtoVersionOffset = 18;
inline constexpr int kProtoVersionSize = 3;
inline constexpr int kProtoProtocolOffset = 21;
inline constexpr int kProtoProtocolSize = 3;
inline constexpr int kProtoCodingOffset = 24;
inline constexpr int kProtoCodingSize = 8;
inline constexpr int kProtoSessionIdOffset = 32;
inline constexpr int kProtoSessionIdSize = 16;

inline constexpr char kProtoEyeCatch[] = "QX7:global";
inline constexpr char kProtoVersion[] = "001";

static_assert(sizeof(QX7_PROTOCOL_HEADER) == kProtocolHeaderSize);
static_assert(offsetof(QX7_PROTOCOL_HEADER, cLength) == kProtoLengthOffset);
static_assert(offsetof(QX7_PROTOCOL_HEADER, cEyeCatch) == kProtoEyeCatchOffset);
static_assert(offsetof(QX7_PROTOCOL_HEADER, cVersion) == kProtoVersionOffset);
static_assert(offsetof(QX7_PROTOCOL_HEADER, cProtocol) == kProtoProtocolOffset);
static_assert(offsetof(QX7_PROTOCOL_HEADER, cCoding) == kProtoCodingOffset);
static_assert(offsetof(QX7_PROTOCOL_HEADER, cSessionId) == kProtoSessionIdOffset);
static_assert(sizeof(kProtoEyeCatch) - 1 == kProtoEyeCatchSize);
static_assert(sizeof(kProtoVersion) - 1 == kProtoVersionSize);

// Fills the 48 bytes at ProtAddr with a "NAT" header of length 48 and blank coding and
// session fields. Returns 48.
int CrProtocolHeader(void* ProtAddr);

// The frame length in cLength (read like atoi: leading digits), or 0 when cEyeCatch is not
// "QX7:global".
int GetProtocolLength(void* ProtAddr);

// Writes msgLen as 8 digits with leading zeros into cLength, only when cEyeCatch is
// "QX7:global" and msgLen fits 8 digits (0 to 99999999). Returns msgLen either way.
int SetProtocolLength(void* ProtAddr, int msgLen);

// Copies 4 bytes from iByte to oByte one by one.
void i4_memcopy(unsigned char* oByte, unsigned char* iByte);

#endif  // QX_COMMON_PROTOCOL_HEADER_H_
