// Job messages: the one MELD message that a run of the messenger sends to its agent, in its
// three kinds (job status, output view, register variable), and the records that describe
// their bodies.
//
// A body is written byte by byte at the offsets of the records below, with the byte order
// each field needs: fields marked LE are least significant byte first on every host, fields
// marked host are stored as the host holds them. The records document the layout and give
// the offsets; nothing is ever copied into the body as a whole struct.
//
// Ownership: each send operation takes one message from the connection manager context it is
// given (the run's context; a parameter rather than a global, so that the writers depend on
// the connection manager alone), addresses it to the agent's channel (`pcx->agentID`) and hands it
// to the send path, which owns it from then on.
//
// Threads: main thread only, while the connection manager's network thread runs.
#ifndef QX_MESSENGER_JOB_MESSAGES_H_
#define QX_MESSENGER_JOB_MESSAGES_H_

#include <stddef.h>

#include "ccm/context.h"
#include "common/dates.h"
#include "messenger/context.h"

// The 16-byte message head: "MELD    ", version "03", client (host), user ID (host, 0).
typedef struct _qx_headm {
  char msg_typ[8];
  char version[2];
  unsigned short i2Mandant;
  int i4UsrIdNr;
} QX_HEADM;
static_assert(sizeof(QX_HEADM) == 16);
static_assert(offsetof(QX_HEADM, version) == 8 && offsetof(QX_HEADM, i2Mandant) == 10 &&
              offsetof(QX_HEADM, i4UsrIdNr) == 12);

// The first 276 bytes of every MELD body; the payload stands in `msg_insert`.
typedef struct _msg_type_meld {
  QX_HEADM header;
  int msgnr;
  char msg_insert[256];
} MSG_TYPE_MELD;
static_assert(sizeof(MSG_TYPE_MELD) == 276);
static_assert(offsetof(MSG_TYPE_MELD, msg_insert) == 20);

static_assert(sizeof(MSG_TYPE_TIMESTAMP) == 16);

// Job status payload (start, end, restart, snooze, wake-up).
typedef struct _jp_exmldj {
  int jobNr;                                                 // LE
  char status;                                               // 'E' for an end, else 'R'
  char infoText[32];                                         // at most 31 characters, NUL, blanks
  char md_version[32];                                       // version text, blank-padded
  short mdMajor;                                             // host
  short mdMinor;                                             // host
  short mdPatch;                                             // host
  char filler[2];                                            // blanks
  int retCode;                                               // LE
  int cpuTime;                                               // 0
  MSG_TYPE_TIMESTAMP sTime;                                  // UTC, LE fields
  int jtime;                                                 // seconds since 1970, LE
  int pid, ppid, pgrp;                                       // LE
  int pgid, sid, uid, euid, gid, egid, ucpu, scpu, ioCount;  // 0
} JP_EXMLDJ;
static_assert(sizeof(JP_EXMLDJ) == 156);
static_assert(offsetof(JP_EXMLDJ, infoText) == 5 && offsetof(JP_EXMLDJ, md_version) == 37 &&
              offsetof(JP_EXMLDJ, mdMajor) == 70 && offsetof(JP_EXMLDJ, filler) == 76 &&
              offsetof(JP_EXMLDJ, retCode) == 80 && offsetof(JP_EXMLDJ, sTime) == 88 &&
              offsetof(JP_EXMLDJ, jtime) == 104 && offsetof(JP_EXMLDJ, pid) == 108 &&
              offsetof(JP_EXMLDJ, ppid) == 112 && offsetof(JP_EXMLDJ, pgrp) == 116);

// Output-view payload. Only its first 256 bytes travel (the body stays 276 bytes long), so
// `fileName` carries at most 187 characters.
typedef struct _jp_exmldo {
  int jobNr;    // LE
  char status;  // 'O'
  char md_version[32];
  short mdMajor, mdMinor, mdPatch;  // host
  char filler[2];
  MSG_TYPE_TIMESTAMP currTime;  // UTC
  int currTime_t;               // LE
  char loginCheck;              // 'Y' or 'N'
  char fileName[512];
} JP_EXMLDO;
static_assert(sizeof(JP_EXMLDO) == 584);
static_assert(offsetof(JP_EXMLDO, md_version) == 5 && offsetof(JP_EXMLDO, mdMajor) == 38 &&
              offsetof(JP_EXMLDO, filler) == 44 && offsetof(JP_EXMLDO, currTime) == 48 &&
              offsetof(JP_EXMLDO, currTime_t) == 64 && offsetof(JP_EXMLDO, loginCheck) == 68 &&
              offsetof(JP_EXMLDO, fileName) == 69);

// Register-variable payload; the variable record follows it at `variable_dist`.
typedef struct _jp_exmldv {
  int jobNr;          // LE
  char status;        // 'V'
  char infoText[32];  // blanks
  char md_version[32];
  short mdMajor, mdMinor, mdPatch;  // host
  char filler[2];
  MSG_TYPE_TIMESTAMP currTime;  // UTC
  int currTime_t;               // LE
  int variable_dist;            // host: 108, or 0 without a variable
  int variable_len;             // host: 1225, or 0 without a variable
} JP_EXMLDV;
static_assert(sizeof(JP_EXMLDV) == 108);
static_assert(offsetof(JP_EXMLDV, infoText) == 5 && offsetof(JP_EXMLDV, md_version) == 37 &&
              offsetof(JP_EXMLDV, mdMajor) == 70 && offsetof(JP_EXMLDV, filler) == 76 &&
              offsetof(JP_EXMLDV, currTime) == 80 && offsetof(JP_EXMLDV, currTime_t) == 96 &&
              offsetof(JP_EXMLDV, variable_dist) == 100 &&
              offsetof(JP_EXMLDV, variable_len) == 104);

// The variable: name, value and type.
typedef struct _msg_type_status_value {
  char name[200];    // at most 199 characters, NUL bytes after it
  char value[1024];  // at most 1023 characters, NUL bytes after it
  char type;
} MSG_TYPE_STATUS_VALUE;
static_assert(sizeof(MSG_TYPE_STATUS_VALUE) == 1225);
static_assert(offsetof(MSG_TYPE_STATUS_VALUE, value) == 200 &&
              offsetof(MSG_TYPE_STATUS_VALUE, type) == 1224);

// Body lengths.
inline constexpr int kMeldBodySize = static_cast<int>(sizeof(MSG_TYPE_MELD));  // 276
inline constexpr int kMeldVariableBodyBase = 296;  // + variable_len for a variable body

// Destination name of every MELD message.
inline constexpr const char* kMeldDestination = "JPAKTJ_R";

// Clears the 16 bytes at `o_head` and writes the head: exactly 8 bytes of `msgTyp`, "03", the
// low 16 bits of `Mandant`, `UsrIdnr`.
void CreateQxHeadm(QX_HEADM* o_head, const char* msgTyp, int Mandant, int UsrIdnr);

// Job status message. 0; -1 when no message could be had (nothing is sent).
int SendJpMd(ccm_context_t* ccm, PCX* pcx);
// Output-view message. 0; -1 when no output file is named or no message could be had
// (nothing is sent).
int SendOutputViewMsg(ccm_context_t* ccm, PCX* pcx);
// Register-variable message. 0; -1 when no message could be had (nothing is sent).
int SendRegVariableMsg(ccm_context_t* ccm, PCX* pcx);

#endif  // QX_MESSENGER_JOB_MESSAGES_H_
