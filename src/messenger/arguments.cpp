// The messenger's command line.
#include "messenger/arguments.h"

#include <stdlib.h>
#include <string.h>

#include "common/strutil.h"
#include "common/trace_log.h"
#include "messenger/command_exec.h"

namespace {

constexpr int kKeySize = 64;
constexpr int kValueSize = 8192;
constexpr int kTimeoutMax = 600;  // a longer TIMEOUT falls back to the default
constexpr int kTimeoutDefault = 60;
constexpr size_t kVarNameKept = 200;  // NAME is cut to this many characters

// The value area is static: 8 KiB is kept off the stack of the main thread.
char value_area[kValueSize];

// Applies one key=value pair. Returns true when the key was CMD.
bool Apply(PCX* pcx, const char* key, char* value) {
  const auto is = [key](const char* k) { return strcmp(key, k) == 0; };
  if (is("JNR")) {
    pcx->jobnri = atoi(value);
  } else if (is("PNR")) {
    pcx->portnri = atoi(value);
  } else if (is("TYP")) {
    pcx->status = value[0];
    pcx->melder_type = value[0];
    pcx->status = pcx->status == kMelderEnd ? 'E' : 'R';
  } else if (is("TXT")) {
    StringCopy(pcx->info_text, sizeof pcx->info_text, value);
  } else if (is("RET")) {
    pcx->reti = atoi(value);
  } else if (is("IPA")) {
    StringCopy(pcx->ipAddr, sizeof pcx->ipAddr, value);
  } else if (is("MNR")) {
    pcx->client = static_cast<short>(atoi(value));  // kept in 16 bits
  } else if (is("RETRY")) {
    pcx->connect_retry = atoi(value);
  } else if (is("WAIT")) {
    // Accepted and ignored: the pause between attempts is always 120 seconds.
  } else if (is("TIMEOUT")) {
    ToUpperCase(value, static_cast<int>(strlen(value)));
    pcx->IoTimeOut = strcmp(value, "NONE") == 0 ? 0 : atoi(value);
    if (pcx->IoTimeOut > kTimeoutMax) pcx->IoTimeOut = kTimeoutDefault;
  } else if (is("TRC")) {
    trcFlag = atoi(value);
  } else if (is("ULOGIN")) {
    pcx->output_login = value[0] == 'Y' ? 'Y' : 'N';
  } else if (is("OUTFILE")) {
    StringCopy(pcx->output_file, sizeof pcx->output_file, value);
  } else if (is("CMD")) {
    StringCopy(pcx->pCmdBuffer, sizeof pcx->pCmdBuffer, value);
    return true;
  } else if (is("NAME")) {
    StringCopy(pcx->var_name, sizeof pcx->var_name, value);
    pcx->var_name[kVarNameKept] = '\0';
  } else if (is("VALUE")) {
    StringCopy(pcx->var_value, sizeof pcx->var_value, value);
    pcx->filler2 = 0;
  } else if (is("VTYPE")) {
    pcx->var_type = value[0];
  }
  return false;
}

}  // namespace

int parse_arguments(PCX* pcx, int argc, char** argv) {
  QX_TRACE("%s(argc=%d) -->", __func__, argc);
  for (int i = 1; i < argc; ++i) {
    QX_TRACE("%s:      argument-%02i : %s", __func__, i, argv[i]);
    char key[kKeySize];
    memset(key, 0, sizeof key);
    memset(value_area, 0, sizeof value_area);
    get_word_delimited(argv[i], '=', 1, key, sizeof key);
    get_word_delimited(argv[i], '=', -2, value_area, sizeof value_area);
    ToUpperCase(key, static_cast<int>(strlen(key)));
    QX_TRACE("%s:      key(%s) = value(%s)", __func__, key, value_area);
    if (Apply(pcx, key, value_area)) exit(processCmd(pcx) == 0 ? 0 : 1);
  }
  QX_TRACE("%s:      %-30s : '%s'", __func__, "TCP/IP address", pcx->ipAddr);
  QX_TRACE("%s:      %-30s : '%i'", __func__, "port number", pcx->portnri);
  QX_TRACE("%s:      %-30s : '%i'", __func__, "job number", pcx->jobnri);
  QX_TRACE("%s:      %-30s : '%i'", __func__, "client", pcx->client);
  QX_TRACE("%s:      %-30s : '%i'", __func__, "result", pcx->reti);
  QX_TRACE("%s:      %-30s : '%s'", __func__, "information", pcx->info_text);
  QX_TRACE("%s:      %-30s : '%c'", __func__, "type", pcx->status);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}
