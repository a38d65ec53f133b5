// The messaging layer in one include: the message record, the in-process
// router with its queue and worker, and the message pumps. Each lives in its
// own header; this one is for code that uses all three, as the links and
// routers above this layer do.
#pragma once

#include "messaging/messageitem.h"
#include "messaging/messagepump.h"
#include "messaging/messagerouter.h"
