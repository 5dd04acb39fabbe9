#include "common/protocol_header.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool has_eye_catcher(const unsigned char* p) {
  return std::memcmp(p + kProtoEyeCatchOffset, kProtoEyeCatch, kProtoEyeCatchSize) == 0;
}

}  // namespace

int CrProtocolHeader(void* ProtAddr) {
  auto* p = static_cast<unsigned char*>(ProtAddr);
  std::memset(p, ' ', kProtocolHeaderSize);
  std::memcpy(p + kProtoLengthOffset, "00000048", kProtoLengthSize);
  std::memcpy(p + kProtoEyeCatchOffset, kProtoEyeCatch, kProtoEyeCatchSize);
  std::memcpy(p + kProtoVersionOffset, kProtoVersion, kProtoVersionSize);
  std::memcpy(p + kProtoProtocolOffset, "NAT", kProtoProtocolSize);
  return kProtocolHeaderSize;
}

int GetProtocolLength(void* ProtAddr) {
  const auto* p = static_cast<const unsigned char*>(ProtAddr);
  if (!has_eye_catcher(p)) return 0;
  // cLength has no terminator of its own; read it from a terminated copy.
  char digits[kProtoLengthSize + 1];
  std::memcpy(digits, p + kProtoLengthOffset, kProtoLengthSize);
  digits[kProtoLengthSize] = '\0';
  return std::atoi(digits);
}

int SetProtocolLength(void* ProtAddr, int msgLen) {
  auto* p = static_cast<unsigned char*>(ProtAddr);
  if (has_eye_catcher(p) && msgLen >= 0 && msgLen <= 99999999) {
    char digits[kProtoLengthSize + 1];
    std::snprintf(digits, sizeof digits, "%08i", msgLen);
    std::memcpy(p + kProtoLengthOffset, digits, kProtoLengthSize);
  }
  return msgLen;
}

void i4_memcopy(unsigned char* oByte, unsigned char* iByte) {
  for (int i = 0; i < 4; ++i)
    oByte[i] = iByte[i];
}
