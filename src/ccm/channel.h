// Channel table: one channel per socket of the connection manager, with its kind, state bits,
// partner address, receive buffer and own message queues, and the operations that create,
// enter, find, delete and destroy channels.
//
// Ownership: the context owns its channels. A new channel (`ccm_channel_new_entry`) belongs to
// its creator until it is entered (`ccm_channel_chain`) or destroyed. Entered channels wait in
// `channel_newq` until the network thread merges them into `channelq`, which the network thread
// owns while it runs. A channel owns its connect user context, buffers and queued messages.
//
// Threads: any thread may create, enter, search and delete. The three searches return holding
// the context's `channel_lock` when they find a channel (release it with
// `ccm_channel_unlock`), and holding nothing when they do not. Destroying deleted channels is
// the network thread's work; `ccm_channel_closeall` is for the main thread after the join.
#ifndef QX_CCM_CHANNEL_H_
#define QX_CCM_CHANNEL_H_

#include "ccm/channel_record.h"
#include "ccm/context_record.h"
#include "ccm/locks.h"

// Creates a zero-filled channel with the next ID and name "*ID<n>", in no list.
// 0 with it in *ccmch, or -1 with `ccmerr` filled (3301 "CREATE_CHANNEL").
int ccm_channel_new_entry(ccm_context_t* ccm, ccm_channel_t** ccmch, ccm_error_t* ccmerr);
// Stamps the channel's eye-catcher and appends it to `channel_newq`. 0.
int ccm_channel_chain(ccm_context_t* ccm, ccm_channel_t* ccmch);

// Searches for a live (not deleted) channel. When found, `channel_lock` stays held.
ccm_channel_t* ccm_channel_getbyID(ccm_context_t* ccm, int ID);              // channelq, newq
ccm_channel_t* ccm_channel_getbyRemoteID(ccm_context_t* ccm, int ID);        // channelq only
ccm_channel_t* ccm_channel_getbyName(ccm_context_t* ccm, const char* name);  // channelq, newq

// 1 or 0; no lock stays held.
int ccm_channel_existbyID(ccm_context_t* ccm, int ID);
int ccm_channel_existbyName(ccm_context_t* ccm, const char* name);
// Copies the partner address (`addr`, 64 bytes with terminator) of the channel found by ID
// (when ID >= 1) or else by name into `ip`; 0, or -1 when none is found.
int ccm_channel_get_ip(ccm_context_t* ccm, int ID, const char* name, char* ip, ccm_error_t* ccmerr);

// Marks a channel deleted (and the context as holding a deleted channel). 0.
int ccm_channel_delete(ccm_context_t* ccm, ccm_channel_t* ccmch);
int ccm_channel_deletebyID(ccm_context_t* ccm, int ID);
int ccm_channel_deletebyName(ccm_context_t* ccm, const char* name);

// Releases a channel that stands in no list; unless its type is 255 or -1 a "CHANNEL_CLOSE"
// notice goes to the context's `recvq`. 0.
int ccm_channel_destroy(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr);
// Destroys every channel of `channelq` (after the network thread ended). 0.
int ccm_channel_closeall(ccm_context_t* ccm);
// Unlinks and destroys the deleted channels of `channelq`, keeping the others in order.
// Returns 0; `ndestroyed`, when given, receives the number destroyed.
int ccm_destroy_deleted_channels(ccm_context_t* ccm, int* ndestroyed = nullptr);
// Marks a channel as a trusted local partner: the other end of a socket pair or of a
// local-domain connection that the application made to exchange internal messages with a
// program of its own. Only from such a channel are frames with the "IPC" protocol field taken;
// from any other they are refused like a malformed frame. (The notices "CHANNEL_CLOSE" and
// "CHANNEL_ACCEPT" are made only inside the process and refused from every channel.)
// 0, or -1 with `ccmerr` filled and the channel unchanged when its socket is not a
// local-domain socket. The pair maker (ccm_channel_create_pair) marks both its channels.
int ccm_channel_set_local_partner(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr);

// Records the socket's local address in `bind_addr`; 0, or -1 with `ccmerr` filled.
int ccm_channel_bindaddr_inquire(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr);

// A channel found by ccm_channel_getbyID / ccm_channel_getbyName, held with the channel lock
// that the search keeps on success; the lock is released (ccm_channel_unlock) when the hold
// goes. Empty when nothing was found, and then holds no lock.
class ccm_found_channel {
 public:
  static ccm_found_channel by_ID(ccm_context_t* ccm, int ID) {
    return ccm_found_channel(ccm, ccm_channel_getbyID(ccm, ID));
  }
  static ccm_found_channel by_name(ccm_context_t* ccm, const char* name) {
    return ccm_found_channel(ccm, ccm_channel_getbyName(ccm, name));
  }
  // By ID when `ID` is not 0 and such a channel exists, else by name.
  static ccm_found_channel by_ID_or_name(ccm_context_t* ccm, int ID, const char* name) {
    if (ID != 0) {
      if (ccm_found_channel found = by_ID(ccm, ID)) return found;
    }
    return by_name(ccm, name);
  }
  ccm_found_channel(ccm_found_channel&& other) noexcept : ccm_(other.ccm_), ch_(other.ch_) {
    other.ch_ = nullptr;
  }
  ~ccm_found_channel() {
    if (ch_ != nullptr) ccm_channel_unlock(ccm_);
  }
  ccm_found_channel(const ccm_found_channel&) = delete;
  ccm_found_channel& operator=(const ccm_found_channel&) = delete;
  ccm_found_channel& operator=(ccm_found_channel&&) = delete;

  ccm_channel_t* get() const { return ch_; }
  ccm_channel_t* operator->() const { return ch_; }
  explicit operator bool() const { return ch_ != nullptr; }

 private:
  ccm_found_channel(ccm_context_t* ccm, ccm_channel_t* ch) : ccm_(ccm), ch_(ch) {}
  ccm_context_t* ccm_;
  ccm_channel_t* ch_;
};

#endif  // QX_CCM_CHANNEL_H_
