// Code-page conversion through fixed and user-built tables.
#include "common/ebcdic.h"

namespace {

void Translate(char* text, int length, const unsigned char* table) {
  if (text == nullptr || table == nullptr) return;
  for (int i = 0; i < length; ++i) {
    text[i] = static_cast<char>(table[static_cast<unsigned char>(text[i])]);
  }
}

}  // namespace

int iIsEbcdic(void) {
  volatile char zero = '0';  // read at run time, as the host's compiler encoded it
  return zero == 0x30 ? 0 : 1;
}

void ToEbcdic(char* Text, int textLength) {
  Translate(Text, textLength, ascii_to_ebcdic037);
}

void ToAscii(char* Text, int textLength) {
  Translate(Text, textLength, ebcdic037_to_ascii);
}

void SetCodeTab(unsigned char* cCodeTab, const unsigned char* InpCode) {
  if (cCodeTab == nullptr || InpCode == nullptr) return;
  const unsigned char* codes = InpCode;
  const unsigned char* attributes = InpCode + kCodeTabSize;
  unsigned char substitute = ' ';
  for (int i = 0; i < kCodeTabSize; ++i) {
    if (attributes[i] & kCodeSubstitute) {
      substitute = codes[i];
      break;
    }
  }
  for (int i = 0; i < kCodeTabSize; ++i) {
    cCodeTab[i] = (attributes[i] & kCodeValid) ? codes[i] : substitute;
  }
}

int AreaConv(char* OutArea, const char* ConvArea, int AreaLen, const unsigned char* cCodeTab) {
  if (OutArea == nullptr || ConvArea == nullptr || cCodeTab == nullptr || AreaLen <= 0) return 0;
  for (int i = 0; i < AreaLen; ++i) {
    OutArea[i] = static_cast<char>(cCodeTab[static_cast<unsigned char>(ConvArea[i])]);
  }
  return AreaLen;
}
