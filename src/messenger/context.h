// The messenger context: everything the command line says for one run of qx_jpmd, the
// build constants that the version answer, the report and the job messages carry, and the
// messenger's globals.
//
// Ownership: the context is the one static record `spcx` of the process; `pcx` points at it
// for the whole run. Its text fields are NUL-terminated and bounded by their sizes.
//
// Threads: written by the main thread only (before the network thread starts); the
// connection manager reads `running_mode` through the pointer handed to `ccm_open`.
#ifndef QX_MESSENGER_CONTEXT_H_
#define QX_MESSENGER_CONTEXT_H_

#include <stddef.h>
#include <sys/types.h>

// Build constants.
inline constexpr const char* kQxVersionText = "12.2.0+build.2108";
inline constexpr int kQxVersionMajor = 12;
inline constexpr int kQxVersionMinor = 2;
inline constexpr int kQxVersionPatch = 0;
inline constexpr int kQxChangelist = 1530016094;

// The messenger's kind of program for the connection manager.
inline constexpr int kMessengerRunningMode = 3;

// Event types (`melder_type`) that the messenger tells apart; any other value is a restart.
enum MelderType : char {
  kMelderStart = 'S',
  kMelderEnd = 'E',
  kMelderSnooze = '0',
  kMelderWakeup = '1',
  kMelderOutputView = 'O',
  kMelderVariable = 'V',
  kMelderDefault = 'U',
};

typedef struct __messenger_context {
  char eyec[8];            // eye-catcher; the messenger leaves it all zero
  int running_mode;        // 3; read by the connection manager through the head record
  void* ccm;               // not used by the messenger (see the global `ccm`)
  int agentID;             // channel ID of the agent connection, 0 while there is none
  int abnormal_end;        // 1 when the wait for the agent's first message failed
  char program_name[256];  // last path component of argv[0], at most 255 characters
  char ipAddr[64];         // IPA
  char melder_type;        // first character of TYP, unchanged
  char status;             // 'E' for an end event, else 'R'
  char output_login;       // ULOGIN: 'Y' or 'N'
  char output_file[1024];  // OUTFILE
  int connect_retry;       // RETRY
  int connect_wait;        // seconds before every attempt but the first; always 120
  int IoTimeOut;           // TIMEOUT
  char info_text[64];      // TXT
  char var_name[256];      // NAME, at most 200 characters
  char filler1;            // always 0
  char var_value[1024];    // VALUE
  char filler2;            // always 0; terminates var_value
  char var_type;           // first character of VTYPE
  int jobnri;              // JNR
  int portnri;             // PNR
  int reti;                // RET
  short client;            // MNR
  char pCmdBuffer[8192];   // CMD
} PCX;

// The connection manager reads only the head of the context it is handed: an 8-byte
// eye-catcher followed by the running mode at offset 8.
static_assert(offsetof(PCX, eyec) == 0, "context head: eye-catcher first");
static_assert(sizeof(((PCX*)nullptr)->eyec) == 8, "context head: 8-byte eye-catcher");
static_assert(offsetof(PCX, running_mode) == 8, "context head: running mode at offset 8");

extern PCX spcx;    // the messenger context of the process
extern PCX* pcx;    // points at spcx from the first step of main on
extern pid_t wPid;  // the process ID that the report shows

#endif  // QX_MESSENGER_CONTEXT_H_
