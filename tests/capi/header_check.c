/* The public header must be usable from plain C (compiled with -std=c99
 * -Wall -Wextra -Wpedantic -Werror as part of the test build). */
#include "ulmarcomms.h"

#include <stddef.h>

static void onMessage(void* context, void* message, const char* to, const char* method)
{
    (void)context;
    (void)message;
    (void)to;
    (void)method;
}

int ulmarcomms_header_check(void);

int ulmarcomms_header_check(void)
{
    UlmarCommsMessageCallback callback = onMessage;
    void* pump = UlmarCommsCreateMessagePump("c", NULL, callback, NULL, NULL, NULL);
    bool match = true;
    void* message = UlmarCommsCreateListHostsSupportingInterfaces(pump, "x", match);
    UlmarCommsDestroyMessage(message);
    return UlmarCommsScoketsSetOptionNumber("k", 1) + ULMARCOMMS_NO_EVENT;
}
