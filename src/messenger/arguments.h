// The messenger's command line: KEY=value arguments read into the context.
//
// Ownership: writes only into the caller's context (and the global trace switch).
// Threads: main thread only, before any other thread exists.
#ifndef QX_MESSENGER_ARGUMENTS_H_
#define QX_MESSENGER_ARGUMENTS_H_

#include <string_view>

#include "messenger/context.h"

// The keys the messenger knows. Every other key is ignored.
enum class ArgumentId {
  kIPA,
  kPNR,
  kJNR,
  kMNR,
  kTYP,
  kRET,
  kTXT,
  kRETRY,
  kWAIT,
  kTIMEOUT,
  kTRC,
  kULOGIN,
  kOUTFILE,
  kNAME,
  kVALUE,
  kVTYPE,
  kCMD,
};

struct ArgumentKey {
  std::string_view name;  // upper case, as matched after the key is upper-cased
  ArgumentId id;
};

// The parser's only table of keys: what it matches is exactly what is listed here (the usage
// text, the manual page and the README list the same keys).
inline constexpr ArgumentKey kArgumentKeys[] = {
    {"IPA", ArgumentId::kIPA},         {"PNR", ArgumentId::kPNR},
    {"JNR", ArgumentId::kJNR},         {"MNR", ArgumentId::kMNR},
    {"TYP", ArgumentId::kTYP},         {"RET", ArgumentId::kRET},
    {"TXT", ArgumentId::kTXT},         {"RETRY", ArgumentId::kRETRY},
    {"WAIT", ArgumentId::kWAIT},       {"TIMEOUT", ArgumentId::kTIMEOUT},
    {"TRC", ArgumentId::kTRC},         {"ULOGIN", ArgumentId::kULOGIN},
    {"OUTFILE", ArgumentId::kOUTFILE}, {"NAME", ArgumentId::kNAME},
    {"VALUE", ArgumentId::kVALUE},     {"VTYPE", ArgumentId::kVTYPE},
    {"CMD", ArgumentId::kCMD},
};

// Reads argv[1] to argv[argc-1] into `pcx` and returns 0. Nothing is rejected: arguments
// without "=" and unknown keys are ignored, missing values give empty texts, NUL characters and 0
// numbers, too long texts are cut to their fields. A `CMD` argument runs its command at once and
// ends the process (exit status 0 when the command's result was 0, else 1); later arguments are not
// read.
int parse_arguments(PCX* pcx, int argc, char** argv);

#endif  // QX_MESSENGER_ARGUMENTS_H_
