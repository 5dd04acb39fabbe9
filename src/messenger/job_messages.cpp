#include "messenger/job_messages.h"

#include <string.h>
#include <unistd.h>

#include "ccm/ccm.h"
#include "common/convert.h"
#include "common/dates.h"
#include "common/trace_log.h"

namespace {

// Offsets of the payload and of the variable record inside a body.
constexpr size_t kPayload = offsetof(MSG_TYPE_MELD, msg_insert);
constexpr size_t kVariable = kPayload + sizeof(JP_EXMLDV);
static_assert(kVariable == 128);
// The part of the output-view file name that lies inside the 276-byte body.
constexpr size_t kFileNameInBody = kMeldBodySize - (kPayload + offsetof(JP_EXMLDO, fileName));
static_assert(kFileNameInBody == 187);

// Field writers at an explicit offset of the body.
void put_le32(unsigned char* body, size_t off, unsigned int v) {
  unsigned int le = iCnvU32(v);
  memcpy(body + off, &le, sizeof le);
}
void put_le16(unsigned char* body, size_t off, unsigned short v) {
  unsigned short le = iCnvU16(v);
  memcpy(body + off, &le, sizeof le);
}
void put_host16(unsigned char* body, size_t off, short v) {
  memcpy(body + off, &v, sizeof v);
}
void put_host32(unsigned char* body, size_t off, int v) {
  memcpy(body + off, &v, sizeof v);
}
void put_blanks(unsigned char* body, size_t off, size_t n) {
  memset(body + off, ' ', n);
}

// `text` blank-padded (or cut) to `size` bytes, no terminator.
void put_padded(unsigned char* body, size_t off, const char* text, size_t size) {
  size_t n = strnlen(text, size);
  memcpy(body + off, text, n);
  put_blanks(body, off + n, size - n);
}

// At most size - 1 characters of `text`, a NUL, blanks for the rest of the field.
void put_text_nul_blanks(unsigned char* body, size_t off, const char* text, size_t size) {
  size_t n = strnlen(text, size - 1);
  memcpy(body + off, text, n);
  body[off + n] = 0;
  put_blanks(body, off + n + 1, size - n - 1);
}

// At most `max` characters of `text`; the field's other bytes stay 0.
void put_text_nul(unsigned char* body, size_t off, const char* text, size_t max) {
  memcpy(body + off, text, strnlen(text, max));
}

// The version block at `off` (the payload's `md_version`): text, gap, numbers, filler.
void put_version(unsigned char* body, size_t off) {
  put_padded(body, off, kQxVersionText, 32);
  put_host16(body, off + 33, kQxVersionMajor);
  put_host16(body, off + 35, kQxVersionMinor);
  put_host16(body, off + 37, kQxVersionPatch);
  put_blanks(body, off + 39, 2);
}
static_assert(offsetof(JP_EXMLDJ, mdMajor) - offsetof(JP_EXMLDJ, md_version) == 33);
static_assert(offsetof(JP_EXMLDO, mdMajor) - offsetof(JP_EXMLDO, md_version) == 33);
static_assert(offsetof(JP_EXMLDV, filler) - offsetof(JP_EXMLDV, md_version) == 39);

// The UTC time stamp of `dt` at `off`; the seconds since 1970 follow at `off_t`.
void put_time(unsigned char* body, size_t off, size_t off_t, const DATUM_BUFF& dt) {
  const short fields[6] = {dt.utc_jahr, dt.utc_mon, dt.utc_tag, dt.utc_std, dt.utc_min, dt.utc_sek};
  for (int i = 0; i < 6; i++) {
    put_le16(body, off + 2 * i, static_cast<unsigned short>(fields[i]));
  }
  put_le32(body, off_t, static_cast<unsigned int>(dt.dt_time));
}

// Takes a message for a MELD body of 276 cleared bytes with its head written. Null when the
// connection manager has no message to give (out of memory): the caller then sends nothing.
ccm_msg_t* new_meld_message(ccm_context_t* ccm, const PCX* pcx) {
  ccm_error_t err{};
  ccm_msg_t* msg = ccm_msg_alloc(ccm, &err);
  if (msg == nullptr) return nullptr;
  msg->type = CCM_MSG_NAT;
  memset(msg->msg_start, 0, kMeldBodySize);
  msg->len = kMeldBodySize;
  CreateQxHeadm(reinterpret_cast<QX_HEADM*>(msg->msg_start), "MELD    ", pcx->client, 0);
  return msg;
}

// Addresses the message to the agent's channel and hands it to the send path.
void send_meld_message(ccm_context_t* ccm, const PCX* pcx, ccm_msg_t* msg) {
  ccm_setaddr(msg, pcx->agentID, 0, "", kMeldDestination, 0);
  if (send_NAT_message(ccm, msg) != 0) {
    // The send path refused the message and left it with us: give it back.
    ccm_msg_free(ccm, msg);
  }
}

}  // namespace

void CreateQxHeadm(QX_HEADM* o_head, const char* msgTyp, int Mandant, int UsrIdnr) {
  auto* head = reinterpret_cast<unsigned char*>(o_head);
  memset(head, 0, sizeof(QX_HEADM));
  memcpy(head + offsetof(QX_HEADM, msg_typ), msgTyp, 8);
  memcpy(head + offsetof(QX_HEADM, version), "03", 2);
  unsigned short mandant = static_cast<unsigned short>(Mandant);
  memcpy(head + offsetof(QX_HEADM, i2Mandant), &mandant, sizeof mandant);
  memcpy(head + offsetof(QX_HEADM, i4UsrIdNr), &UsrIdnr, sizeof UsrIdnr);
}

int SendJpMd(ccm_context_t* ccm, PCX* pcx) {
  QX_TRACE("%s(status=%c,rc=%d,mandant=%d) -->", __func__, pcx->status, pcx->reti, pcx->client);
  ccm_msg_t* msg = new_meld_message(ccm, pcx);
  if (msg == nullptr) {
    QX_TRACE("%s <-- (no message available)", __func__);
    return -1;
  }
  unsigned char* body = msg->msg_start;
  constexpr size_t p = kPayload;
  put_le32(body, p + offsetof(JP_EXMLDJ, jobNr), static_cast<unsigned int>(pcx->jobnri));
  body[p + offsetof(JP_EXMLDJ, status)] = static_cast<unsigned char>(pcx->status);
  put_text_nul_blanks(body, p + offsetof(JP_EXMLDJ, infoText), pcx->info_text, 32);
  put_version(body, p + offsetof(JP_EXMLDJ, md_version));
  put_le32(body, p + offsetof(JP_EXMLDJ, retCode), static_cast<unsigned int>(pcx->reti));

  DATUM_BUFF dt;
  GetDatumZeit2(nullptr, &dt);
  put_time(body, p + offsetof(JP_EXMLDJ, sTime), p + offsetof(JP_EXMLDJ, jtime), dt);

  pid_t pid = getpid(), ppid = getppid(), pgrp = getpgrp();
  QX_TRACE("%s:      %-30s : %i", __func__, "process ID", static_cast<int>(pid));
  QX_TRACE("%s:      %-30s : %i", __func__, "parent process ID", static_cast<int>(ppid));
  QX_TRACE("%s:      %-30s : %i", __func__, "groupID of the calling process",
           static_cast<int>(pgrp));
  put_le32(body, p + offsetof(JP_EXMLDJ, pid), static_cast<unsigned int>(pid));
  put_le32(body, p + offsetof(JP_EXMLDJ, ppid), static_cast<unsigned int>(ppid));
  put_le32(body, p + offsetof(JP_EXMLDJ, pgrp), static_cast<unsigned int>(pgrp));

  send_meld_message(ccm, pcx, msg);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int SendOutputViewMsg(ccm_context_t* ccm, PCX* pcx) {
  QX_TRACE("%s(jobnumber=%d,client=%i,filename=%s,logincheck=%s) -->", __func__, pcx->jobnri,
           pcx->client, pcx->output_file, pcx->output_login == 'Y' ? "YES" : "NO");
  if (pcx->output_file[0] == 0) {
    QX_TRACE("%s <-- (filename not defined)", __func__);
    return -1;
  }
  ccm_msg_t* msg = new_meld_message(ccm, pcx);
  if (msg == nullptr) {
    QX_TRACE("%s <-- (no message available)", __func__);
    return -1;
  }
  unsigned char* body = msg->msg_start;
  constexpr size_t p = kPayload;
  put_le32(body, p + offsetof(JP_EXMLDO, jobNr), static_cast<unsigned int>(pcx->jobnri));
  body[p + offsetof(JP_EXMLDO, status)] = 'O';
  put_version(body, p + offsetof(JP_EXMLDO, md_version));

  DATUM_BUFF dt;
  GetDatumZeit2(nullptr, &dt);
  put_time(body, p + offsetof(JP_EXMLDO, currTime), p + offsetof(JP_EXMLDO, currTime_t), dt);
  body[p + offsetof(JP_EXMLDO, loginCheck)] = static_cast<unsigned char>(pcx->output_login);
  // Only the part of the name inside the body travels; a long name arrives cut and without
  // a terminator, the rest of the field stays 0.
  memcpy(body + p + offsetof(JP_EXMLDO, fileName), pcx->output_file,
         strnlen(pcx->output_file, kFileNameInBody));

  send_meld_message(ccm, pcx, msg);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int SendRegVariableMsg(ccm_context_t* ccm, PCX* pcx) {
  QX_TRACE("%s(ah_idnr=%d, variable=%s,value=%s,type=%c) -->", __func__, pcx->jobnri, pcx->var_name,
           pcx->var_value, pcx->var_type);
  ccm_msg_t* msg = new_meld_message(ccm, pcx);
  if (msg == nullptr) {
    QX_TRACE("%s <-- (no message available)", __func__);
    return -1;
  }
  unsigned char* body = msg->msg_start;
  constexpr size_t p = kPayload;
  put_le32(body, p + offsetof(JP_EXMLDV, jobNr), static_cast<unsigned int>(pcx->jobnri));
  body[p + offsetof(JP_EXMLDV, status)] = 'V';
  put_blanks(body, p + offsetof(JP_EXMLDV, infoText), 32);
  put_version(body, p + offsetof(JP_EXMLDV, md_version));

  DATUM_BUFF dt;
  GetDatumZeit2(nullptr, &dt);
  put_time(body, p + offsetof(JP_EXMLDV, currTime), p + offsetof(JP_EXMLDV, currTime_t), dt);

  int variable_len = 0;
  if (pcx->var_name[0] != 0) {
    variable_len = static_cast<int>(sizeof(MSG_TYPE_STATUS_VALUE));
    put_host32(body, p + offsetof(JP_EXMLDV, variable_dist), static_cast<int>(sizeof(JP_EXMLDV)));
    put_host32(body, p + offsetof(JP_EXMLDV, variable_len), variable_len);
    // The record lies beyond the 276 cleared bytes: clear it and the zero tail behind it.
    memset(body + kMeldBodySize, 0, kVariable + variable_len + 168 - kMeldBodySize);
    put_text_nul(body, kVariable + offsetof(MSG_TYPE_STATUS_VALUE, name), pcx->var_name, 199);
    put_text_nul(body, kVariable + offsetof(MSG_TYPE_STATUS_VALUE, value), pcx->var_value, 1023);
    body[kVariable + offsetof(MSG_TYPE_STATUS_VALUE, type)] =
        static_cast<unsigned char>(pcx->var_type);
  } else {
    // Without a variable the body is 296 bytes whose last 20 are 0 as well.
    memset(body + kMeldBodySize, 0, kMeldVariableBodyBase - kMeldBodySize);
  }
  msg->len = variable_len + kMeldVariableBodyBase;
  static_assert(kVariable + sizeof(MSG_TYPE_STATUS_VALUE) + 168 ==
                sizeof(MSG_TYPE_STATUS_VALUE) + kMeldVariableBodyBase);

  send_meld_message(ccm, pcx, msg);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}
