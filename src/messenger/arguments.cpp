// The messenger's command line.
#include "messenger/arguments.h"

#include <stdlib.h>
#include <string.h>

#include <iterator>

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

// Keys are matched after upper-casing: a key with another character, or listed twice, would
// never be matched as written.
constexpr bool KeysAreUniqueAndUpperCase() {
  for (size_t i = 0; i < std::size(kArgumentKeys); ++i) {
    for (const char c : kArgumentKeys[i].name)
      if (c < 'A' || c > 'Z') return false;
    for (size_t j = 0; j < i; ++j)
      if (kArgumentKeys[i].name == kArgumentKeys[j].name) return false;
  }
  return true;
}
static_assert(KeysAreUniqueAndUpperCase());

// The key's entry in the parser's table, or null for a key the messenger does not know.
const ArgumentKey* Find(const char* key) {
  for (const ArgumentKey& k : kArgumentKeys)
    if (k.name == key) return &k;
  return nullptr;
}

// The keys that name the event and where it goes: job, port, type, text, return code,
// address, client. False for any other key, which is left to Apply.
bool ApplyEventKey(PCX* pcx, ArgumentId id, const char* value) {
  switch (id) {
    case ArgumentId::kJNR:
      pcx->jobnri = atoi(value);
      break;
    case ArgumentId::kPNR:
      pcx->portnri = atoi(value);
      break;
    case ArgumentId::kTYP:
      pcx->status = value[0];
      pcx->melder_type = value[0];
      pcx->status = pcx->status == kMelderEnd ? 'E' : 'R';
      break;
    case ArgumentId::kTXT:
      StringCopy(pcx->info_text, sizeof pcx->info_text, value);
      break;
    case ArgumentId::kRET:
      pcx->reti = atoi(value);
      break;
    case ArgumentId::kIPA:
      StringCopy(pcx->ipAddr, sizeof pcx->ipAddr, value);
      break;
    case ArgumentId::kMNR:
      pcx->client = static_cast<short>(atoi(value));  // kept in 16 bits
      break;
    default:
      return false;
  }
  return true;
}

// Applies one key=value pair. Returns true when the key was CMD.
bool Apply(PCX* pcx, const char* key, char* value) {
  const ArgumentKey* known = Find(key);
  if (known == nullptr) return false;  // unknown keys are ignored
  if (ApplyEventKey(pcx, known->id, value)) return false;
  switch (known->id) {
    case ArgumentId::kRETRY:
      pcx->connect_retry = atoi(value);
      break;
    case ArgumentId::kWAIT:
      // Accepted and ignored: the pause between attempts is always 120 seconds.
      break;
    case ArgumentId::kTIMEOUT:
      ToUpperCase(value, static_cast<int>(strlen(value)));
      pcx->IoTimeOut = strcmp(value, "NONE") == 0 ? 0 : atoi(value);
      if (pcx->IoTimeOut > kTimeoutMax) pcx->IoTimeOut = kTimeoutDefault;
      break;
    case ArgumentId::kTRC:
      trcFlag = atoi(value);
      break;
    case ArgumentId::kULOGIN:
      pcx->output_login = value[0] == 'Y' ? 'Y' : 'N';
      break;
    case ArgumentId::kOUTFILE:
      StringCopy(pcx->output_file, sizeof pcx->output_file, value);
      break;
    case ArgumentId::kCMD:
      StringCopy(pcx->pCmdBuffer, sizeof pcx->pCmdBuffer, value);
      return true;
    case ArgumentId::kNAME:
      StringCopy(pcx->var_name, sizeof pcx->var_name, value);
      pcx->var_name[kVarNameKept] = '\0';
      break;
    case ArgumentId::kVALUE:
      StringCopy(pcx->var_value, sizeof pcx->var_value, value);
      pcx->filler2 = 0;
      break;
    case ArgumentId::kVTYPE:
      pcx->var_type = value[0];
      break;
    default:  // the event's keys, taken above
      break;
  }
  return false;
}

}  // namespace

int parse_arguments(PCX* pcx, int argc, char** argv) {
  QX_TRACE("%s(argc=%d) -->", __func__, argc);
  for (int i = 1; i < argc; ++i) {
    QX_TRACE("%s:      argument-%02i : %s", __func__, i, argv[i]);
    // Only KEY=value arguments are read. A bare word (a job script's unquoted text that the
    // shell split into words) is never taken as a key: "cmd" would otherwise run an empty
    // command, "retry" would make no connection attempt.
    if (strchr(argv[i], '=') == nullptr) {
      QX_TRACE("%s:      argument-%02i ignored: it holds no \"=\"", __func__, i);
      continue;
    }
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
