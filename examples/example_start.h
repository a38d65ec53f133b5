/*
 * example_start.h - how the examples start the library.
 *
 * The library announces an application's pumps to the machine's service.
 * When the service restarts, it announces them again once its link is back,
 * but by default not the first pump the application created. With
 * "ulmar.messagerouter.reannounce.all=1" in the start text the library holds
 * a first pump of its own, so that every pump of the application is
 * announced again and stays reachable. The examples always turn it on; the
 * user's -s items come after it, so they can still turn it off.
 */
#ifndef EXAMPLE_START_H
#define EXAMPLE_START_H

#include <ulmarcomms.h>

#include <stdio.h>
#include <string.h>

/* UlmarCommsStart with every pump announced again after a service restart. */
static int example_start(const char* user_items)
{
    char text[1024];
    /* A text without '=' is not read as settings; it changes nothing. */
    int has_items = user_items != NULL && strchr(user_items, '=') != NULL;
    int length = snprintf(text, sizeof text, "ulmar.messagerouter.reannounce.all=1%s%s", has_items ? ";" : "",
                          has_items ? user_items : "");
    if (length < 0 || (size_t)length >= sizeof text)
        return ULMARCOMMS_BAD_ARGUMENT;
    return UlmarCommsStart(text);
}

#endif
