// The connection manager for applications: one include for the context, messages, channels,
// outgoing connections, address resolution and internal messages.
#ifndef QX_CCM_CCM_H_
#define QX_CCM_CCM_H_

#include "ccm/address.h"
#include "ccm/channel.h"
#include "ccm/connect.h"
#include "ccm/context.h"
#include "ccm/io.h"
#include "ccm/ipc.h"
#include "ccm/ipc_dispatch.h"
#include "ccm/listen.h"
#include "ccm/locks.h"
#include "ccm/message.h"
#include "ccm/net_thread.h"
#include "ccm/receive.h"
#include "ccm/send.h"
#include "ccm/session.h"
#include "ccm/wire.h"

#endif  // QX_CCM_CCM_H_
