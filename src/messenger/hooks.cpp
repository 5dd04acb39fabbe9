// Hooks the messenger supplies to the layers under it.
#include "messenger/hooks.h"

#include <stdio.h>

int messenger_logger(int msgnr, const char* msginsert) {
  if (msgnr == -1) printf("%d - %s", msgnr, msginsert);
  return 0;
}

int OwnCode(void) {
  return kCodeAscii;
}

void Swapcode(int srccode, int trgcode, unsigned char* from, int size) {
  if (srccode == trgcode || from == nullptr) return;
  const unsigned char* table = trgcode != kCodeEbcdic ? ebcdic2ascii : ascii2ebcdic;
  for (int i = 0; i < size; ++i)
    from[i] = table[from[i]];
}

int is_gss_message(void* /*ccm*/, void* /*msg*/) {
  return 0;
}
