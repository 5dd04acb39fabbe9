// The error record of the common services and its two fillers for failed user and password
// look-ups.
//
// Ownership: records belong to the caller; the fillers write only the fields they name.
//
// Threads: the fillers keep no state and may run in several threads at once.
#ifndef QX_COMMON_QX7_ERROR_H_
#define QX_COMMON_QX7_ERROR_H_

#include "common/trace_log.h"

inline constexpr int kQx7MsgInsertSize = 1024;
inline constexpr int kMsgNrSystemCall = 2000102;     // a failed system call
inline constexpr int kMsgNrPasswordError = 2001007;  // a failed password check

typedef struct _qx7_error {
  int qx_result;                         // result code
  int qx_errno;                          // system error number
  int qx_msgnr;                          // number of the message that describes the error
  char qx_msgInsert[kQx7MsgInsertSize];  // variable part of that message, fields split by "|"
} qx7_error;

// Sets qx_msgnr to 2000102 and qx_msgInsert to "getpwnam(<user>)|<code> - <system text>"
// (cut to 1023 characters). Other fields are not touched.
void FillMessageOnPermissionError(qx7_error* error, int error_code, const char* user_name);

// Sets qx_msgnr to 2001007 and qx_msgInsert to the formatted text (cut to 1023 characters).
// `error_code` and the other fields are not touched.
void FillMessageOnPasswordError(qx7_error* error, int error_code, const char* msg_insert_format,
                                ...) QX_PRINTF(3, 4);

#endif  // QX_COMMON_QX7_ERROR_H_
