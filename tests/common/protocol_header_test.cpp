#include "common/protocol_header.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::string text(const unsigned char* p, int n) {
  return std::string(reinterpret_cast<const char*>(p), n);
}

TEST(ProtocolHeader, LengthIsWrittenAndReadOnlyBehindTheEyeCatcher) {
  unsigned char h[kProtocolHeaderSize + 1];
  h[kProtocolHeaderSize] = 0x5A;  // guard byte behind the header
  EXPECT_EQ(CrProtocolHeader(h), 48);
  EXPECT_EQ(text(h, 48), "00000048QX7:global001NAT" + std::string(24, ' '));
  EXPECT_EQ(h[kProtocolHeaderSize], 0x5A);

  EXPECT_EQ(SetProtocolLength(h, 339), 339);
  EXPECT_EQ(text(h, 18), "00000339QX7:global");
  EXPECT_EQ(GetProtocolLength(h), 339);
  // Values that do not fit eight digits leave the field alone but are still returned.
  EXPECT_EQ(SetProtocolLength(h, 100000000), 100000000);
  EXPECT_EQ(SetProtocolLength(h, -1), -1);
  EXPECT_EQ(text(h, 8), "00000339");
  std::memcpy(h, "0012x999", 8);  // leading digits only, as atoi reads them
  EXPECT_EQ(GetProtocolLength(h), 12);

  h[kProtoEyeCatchOffset] = 'q';
  EXPECT_EQ(GetProtocolLength(h), 0);
  EXPECT_EQ(SetProtocolLength(h, 77), 77);
  EXPECT_EQ(text(h, 8), "0012x999");
}

TEST(ProtocolHeader, FourByteCopyKeepsByteOrder) {
  unsigned char in[4] = {0x01, 0x02, 0x03, 0xFF};
  unsigned char out[6] = {};
  i4_memcopy(out + 1, in);
  EXPECT_EQ(text(out, 6), std::string("\0\x01\x02\x03\xFF\0", 6));
}

}  // namespace
