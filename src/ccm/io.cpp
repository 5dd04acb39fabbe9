// Reading frames from a channel's socket and writing its queued messages.
#include "ccm/io.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "ccm/internal.h"
#include "ccm/message.h"
#include "ccm/receive.h"
#include "ccm/wire.h"
#include "common/trace_log.h"

namespace {

// Control data is read into and sent from this area; cmsghdr needs its alignment.
struct alignas(cmsghdr) control_area {
  unsigned char bytes[CCM_CONTROL_AREA];
};

#define QX_CH_FMT "channel(%p,s=%d/chID=%d,%s,flag=%.8X)"
#define QX_CH_ARGS(ch)                                   \
  static_cast<void*>(ch), (ch)->s, (ch)->ID, (ch)->name, \
      static_cast<unsigned>(ccm_flag_get((ch)->flag))

// Closes the descriptors passed in control data that no message takes over, so that a read
// which completes no frame does not leak them.
void close_passed_descriptors(unsigned char* control, size_t len) {
  msghdr mh{};
  mh.msg_control = control;
  mh.msg_controllen = len;
  for (cmsghdr* c = CMSG_FIRSTHDR(&mh); c != nullptr; c = CMSG_NXTHDR(&mh, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    const size_t n = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < n; ++i) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
      QX_TRACE("close_passed_descriptors:      no frame for passed descriptor %d, closed", fd);
      if (fd >= 0) close(fd);
    }
  }
}

// Grows the receive buffer, keeping what it holds: by one step, or at once to the multiple of
// the step that holds the frame at its start when that frame's (already checked) length is
// known, so that a large frame costs one copy instead of one per step. The new size is
// committed only together with the new buffer, so a failed growth leaves the channel's buffer,
// size and contents exactly as they were.
bool grow_receive_buffer(ccm_channel_t* ch, ccm_error_t* ccmerr) {
  int new_size = ch->recv_size + CCM_RECV_GROW_STEP;
  if (ch->recv_pos > CCM_LENGTH_VISIBLE) {
    const int frame = ccm_check_msg_length(ch->recv_buffer);
    if (frame > new_size) {
      new_size = (frame + CCM_RECV_GROW_STEP - 1) / CCM_RECV_GROW_STEP * CCM_RECV_GROW_STEP;
    }
  }
  QX_TRACE("ccm_read_channel:         resize buffer at %p: %d ==> %d",
           static_cast<void*>(ch->recv_buffer), ch->recv_size, new_size);
  auto* buf = static_cast<unsigned char*>(ccm_alloc(static_cast<size_t>(new_size), "RECVBUFF"));
  if (buf == nullptr) {
    ccm_set_alloc_error(ccmerr, "RECVBUFF", __FILE__, __LINE__);
    return false;
  }
  if (ch->recv_pos > 0) std::memcpy(buf, ch->recv_buffer, static_cast<size_t>(ch->recv_pos));
  ccm_free(ch->recv_buffer);
  ch->recv_buffer = buf;
  ch->recv_size = new_size;
  return true;
}

// How much one read takes: what the frame at the start of the buffer still lacks (when its
// length is known) and CCM_RECV_READ_AHEAD bytes behind it, at most the free room. A buffer
// that grew for a large frame thus never brings in a large number of small frames at once:
// what one read adds to the unread messages of a channel stays bounded.
int read_size(const ccm_channel_t* ch) {
  const int room = ch->recv_size - ch->recv_pos;
  int want = CCM_RECV_READ_AHEAD;
  if (ch->recv_pos > CCM_LENGTH_VISIBLE) {
    const int frame = ccm_check_msg_length(ch->recv_buffer);
    if (frame > ch->recv_pos) want += frame - ch->recv_pos;
  }
  return std::min(room, want);
}

// Counts a message that goes to the receive queue among the unread ones of its channel.
void count_unread(ccm_channel_t* ch, ccm_msg_t* msg) {
  msg->flag |= CCM_MSGFLAG_UNREAD;
  __atomic_fetch_add(&ch->unread_msgs, 1, __ATOMIC_SEQ_CST);
  __atomic_fetch_add(&ch->unread_bytes, static_cast<long>(ccm_msg_footprint(msg)),
                     __ATOMIC_SEQ_CST);
}

// Moves the `left` unconsumed bytes at `cursor` to the front of the receive buffer.
void keep_rest(ccm_channel_t* ch, const unsigned char* cursor, int left) {
  if (left > 0 && cursor != ch->recv_buffer) std::memmove(ch->recv_buffer, cursor, left);
  ch->recv_pos = left;
}

// The reader's steps trace under the reader's name.
constexpr const char* kReadFn = "ccm_read_channel";

// Descriptors passed with one read. They belong to one message only, the first frame the read
// completes: a copy on every frame would let two owners close the same descriptor. Those that
// no frame takes are closed.
struct passed_descriptors {
  control_area control{};
  size_t len = 0;
  bool taken = false;

  void give_to(ccm_msg_t* msg) {
    if (len == 0 || taken) return;
    std::memcpy(msg->control_data, control.bytes, len);
    msg->control_len = len;
    taken = true;
    if (trc_level()) trcdump(msg->control_data, static_cast<int>(len), "control data");
  }
  void close_unless_taken() {
    if (len != 0 && !taken) close_passed_descriptors(control.bytes, len);
  }
};

// Reads what the socket holds into the receive buffer behind what is there already, with the
// descriptors passed along. recvmsg's result, its errno in *err (saved before any trace).
ssize_t receive_into_buffer(ccm_channel_t* ch, passed_descriptors& passed, int* err) {
  iovec iov{};
  iov.iov_base = ch->recv_buffer + ch->recv_pos;
  iov.iov_len = static_cast<size_t>(read_size(ch));
  msghdr mh{};
  mh.msg_iov = &iov;
  mh.msg_iovlen = 1;
  mh.msg_control = passed.control.bytes;
  mh.msg_controllen = sizeof passed.control.bytes;
  ch->timestamp_last_io = time(nullptr);

  QX_TRACE("%s:      recvmsg(pos=%d) -->", kReadFn, ch->recv_pos);
  const ssize_t n = recvmsg(ch->s, &mh, 0);
  *err = errno;
  QX_TRACE("%s:      recvmsg(...) <-- (rslt=%d)", kReadFn, static_cast<int>(n));
  if (n <= 0) return n;
  if (trc_level()) trcdump(iov.iov_base, static_cast<int>(n), "recvmsg() data");
  passed.len = std::min<size_t>(mh.msg_controllen, sizeof passed.control.bytes);
  QX_TRACE("%s:      control_len = %u", kReadFn, static_cast<unsigned>(passed.len));
  ch->recv_pos += static_cast<int>(n);
  return n;
}

// The complete frame of `len` bytes at `cursor` as a message from the channel; null (with
// `ccmerr` filled) when no message could be had.
ccm_msg_t* frame_message(ccm_context_t* ccm, ccm_channel_t* ch, const unsigned char* cursor,
                         int len, ccm_error_t* ccmerr) {
  ccm_msg_t* msg = ccm_msg_alloc_frame(ccm, len, ccmerr);
  if (msg == nullptr) return nullptr;
  std::memcpy(msg->buffer1, cursor, static_cast<size_t>(len));
  msg->len = len;
  msg->msg_start = msg->buffer1;
  msg->addr.src_ID = ch->ID;
  msg->addr.src_type = ch->type;
  if (trc_level()) trcdump(msg->msg_start, len, "complete message from " QX_CH_FMT, QX_CH_ARGS(ch));
  return msg;
}

// The classified messages of one read, held back until the read is cut into frames. They
// reach the receive queue together, so a reader that takes the first one finds the others of
// the same read behind it: frames a peer wrote in one piece never look like later ones.
struct read_batch {
  ccm_msg_queue_t msgs{};

  // Takes `msg` out of the messages in use (it is the network thread's until delivered).
  void add(ccm_context_t* ccm, ccm_channel_t* ch, ccm_msg_t* msg) {
    count_unread(ch, msg);
    {
      ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
      ccm_queue_unlink(ccm->msgq_inuse, msg);
    }
    ccm_queue_append(msgs, msg);
  }
  // Appends the held messages to the receive queue in one step and announces them once.
  void deliver(ccm_context_t* ccm) {
    if (msgs.head == nullptr) return;
    {
      ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
      ccm_queue_splice(ccm->recvq, msgs);
    }
    ccm_wakeup_processor(ccm);
  }
};

// The frames complete in the receive buffer, each classified and delivered; the rest moves to
// the front of the buffer. 0, or -1 when a frame was invalid (the channel is deleted) or no
// message could be had for one (the channel stays and its frames wait for the next read).
// Frames before an invalid one are delivered ahead of the channel's close notice.
int cut_frames(ccm_context_t* ccm, ccm_channel_t* ccmch, passed_descriptors& passed,
               ccm_error_t* ccmerr) {
  int left = ccmch->recv_pos;
  unsigned char* cursor = ccmch->recv_buffer;
  read_batch batch;
  while (left > CCM_LENGTH_VISIBLE) {
    QX_TRACE("%s:      datalen_in_buffer = %d", kReadFn, left);
    // The announced length is checked before anything is done for it: a frame that could
    // never be valid ends the channel at once instead of letting the buffer grow towards it.
    const int len = ccm_get_valid_msg_length(ccm, ccmch, cursor, ccmerr);
    if (len < 0) {
      batch.deliver(ccm);
      passed.close_unless_taken();
      ccm_channel_delete(ccm, ccmch);
      QX_TRACE("%s <-- (invalid message length)", kReadFn);
      return -1;
    }
    if (left < len) {
      QX_TRACE("%s:      not enough data pos(%d) < len(%d)", kReadFn, left, len);
      break;
    }
    ccm_msg_t* msg = frame_message(ccm, ccmch, cursor, len, ccmerr);
    if (msg == nullptr) {
      // Frames already queued must not be queued again by the next read: the unconsumed rest
      // goes to the front now. The channel stays; its remaining frames are cut out at its next
      // read.
      batch.deliver(ccm);
      keep_rest(ccmch, cursor, left);
      passed.close_unless_taken();
      QX_TRACE("%s <-- (msg alloc error, message queue)", kReadFn);
      return -1;
    }
    if (ccm_classify_message(ccm, ccmch, msg, ccmerr) != 0) {
      batch.deliver(ccm);
      ccm_channel_delete(ccm, ccmch);
      ccm_msg_free(ccm, msg);
      passed.close_unless_taken();
      QX_TRACE("%s <-- (qualifing message error)", kReadFn);
      return -1;
    }
    passed.give_to(msg);
    batch.add(ccm, ccmch, msg);
    left -= len;
    cursor += len;
  }
  batch.deliver(ccm);
  passed.close_unless_taken();
  keep_rest(ccmch, cursor, left);
  QX_TRACE("%s <-- (datalen=%d,pos=%d)", kReadFn, left, ccmch->recv_pos);
  return 0;
}

// The writer's steps trace under the writer's name.
constexpr const char* kWriteFn = "ccm_write_channel";

// Sends the next `chunk` bytes of `msg` from its position, with its control data (every send
// of a message carries it). sendmsg's result, its errno in *err (saved before the trace).
ssize_t send_chunk(ccm_channel_t* ccmch, ccm_msg_t* msg, int chunk, int* err) {
  unsigned char* data = msg->msg_start + msg->pos;
  if (trc_level()) trcdump(data, chunk, "sendmsg() to " QX_CH_FMT, QX_CH_ARGS(ccmch));
  iovec iov{};
  iov.iov_base = data;
  iov.iov_len = static_cast<size_t>(chunk);
  msghdr mh{};
  mh.msg_iov = &iov;
  mh.msg_iovlen = 1;
  control_area control{};
  if (msg->control_len != 0) {
    const size_t clen = std::min(msg->control_len, sizeof control.bytes);
    std::memcpy(control.bytes, msg->control_data, clen);
    mh.msg_control = control.bytes;
    mh.msg_controllen = clen;
    if (trc_level()) trcdump(control.bytes, static_cast<int>(clen), "control data");
  }
  ccmch->timestamp_last_io = time(nullptr);
  QX_TRACE("%s:         send(len=%d) -->", kWriteFn, chunk);
  errno = 0;
  // MSG_NOSIGNAL: a partner that reset the connection must end the channel, not the process.
  const ssize_t n = sendmsg(ccmch->s, &mh, MSG_NOSIGNAL);
  *err = errno;
  QX_TRACE("%s:         sendmsg(...) <-- (rslt=%d,errno=%d)", kWriteFn, static_cast<int>(n), *err);
  return n;
}

}  // namespace

int ccm_read_channel(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr) {
  QX_TRACE("%s(" QX_CH_FMT ",pos=%d) -->", __func__, QX_CH_ARGS(ccmch), ccmch->recv_pos);

  // A buffer that is full (or not there yet) grows first. When it cannot grow, the channel
  // keeps its buffer and everything in it: the partner is not at fault for the shortage, and
  // the socket, still readable, brings the reader back at the next cycle to try again.
  if (ccmch->recv_pos >= ccmch->recv_size && !grow_receive_buffer(ccmch, ccmerr)) {
    QX_TRACE("%s <-- (calloc error, receive buffer)", __func__);
    return -1;
  }
  if (!(ccm_flag_get(ccmch->flag) & CCM_CHFLAG_BINDADDR)) {
    ccm_error_t own{};
    ccm_channel_bindaddr_inquire(ccm, ccmch, &own);
    ccm_log_error(own);
  }
  passed_descriptors passed;
  int err = 0;
  const ssize_t n = receive_into_buffer(ccmch, passed, &err);
  if (n <= 0) {
    // The reader runs only for a socket that select reported readable: nothing read means the
    // partner closed, and no error is harmless here.
    if (n < 0) {
      ccmch->msgnr = CCM_MSGNR_RECEIVE_ERROR;
      std::snprintf(ccmch->msginsert, sizeof ccmch->msginsert, "%s|%d(%s),S(%d(ID=%d))|",
                    ccmch->name, err, std::strerror(err), ccmch->s, ccmch->ID);
    }
    ccm_channel_delete(ccm, ccmch);
    QX_TRACE("%s <-- (receive error)", __func__);
    return -1;
  }
  return cut_frames(ccm, ccmch, passed, ccmerr);
}

int ccm_write_channel(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* /*ccmerr*/) {
  QX_TRACE("%s(" QX_CH_FMT ") -->", __func__, QX_CH_ARGS(ccmch));
  ccm_msg_t* msg = nullptr;
  {
    ccmch_queue_guard guard(ccm, ccmch, ccm_lock_trace::kQuiet);
    msg = ccmch->sendq.head;
  }
  while (msg != nullptr) {
    QX_TRACE("%s:      msg(%p,msgID=%lu,addr=%p,len=%d,pos=%d,flag=%.8X),pos=%d", __func__,
             static_cast<void*>(msg), msg->ID, static_cast<void*>(msg->msg_start), msg->len,
             msg->pos, static_cast<unsigned>(msg->flag), msg->pos);
    if (msg->pos < 0 || msg->pos > msg->len) {
      // Progress outside the message would read beyond it: the message is sent from its start
      // (a negative position) or taken as written (a position past its end).
      if (trc_level()) trcdump(msg, static_cast<int>(sizeof *msg), "invalid CCMMSG");
      msg->pos = msg->pos < 0 ? 0 : msg->len;
    }
    const int chunk = std::min(msg->len - msg->pos, CCM_SEND_CHUNK);
    int err = 0;
    const ssize_t n = send_chunk(ccmch, msg, chunk, &err);
    if (n < 0) {
      if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) {
        QX_TRACE("%s <-- (WouldBlock,pos=%d)", __func__, msg->pos);
        return 0;
      }
      ccmch->msgnr = CCM_MSGNR_SEND_ERROR;
      std::snprintf(ccmch->msginsert, sizeof ccmch->msginsert, "%d(%s)|%s(%d/ID=%d)|", err,
                    std::strerror(err), ccmch->name, ccmch->s, ccmch->ID);
      ccm_channel_delete(ccm, ccmch);
      QX_TRACE("%s <-- (socket send() error)", __func__);
      return -1;
    }
    msg->pos += static_cast<int>(n);
    QX_TRACE("%s:      pos = %d, len = %d", __func__, msg->pos, msg->len);
    if (msg->pos == msg->len) {
      ccm_msg_t* written = msg;
      {
        ccmch_queue_guard guard(ccm, ccmch, ccm_lock_trace::kQuiet);
        ccmch->sendq.head = written->nxt;
        msg = written->nxt;
      }
      written->nxt = nullptr;
      ccm_msg_free(ccm, written);
    }
    if (n < chunk) break;
  }
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}
