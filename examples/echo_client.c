/*
 * echo_client - sends one "Echo" request and prints the reply.
 *
 *   echo_client [-s START_ARGUMENT] [-t TARGET] [-w SECONDS] TEXT
 *
 * TARGET is the server's address (default "echo": any host part left out
 * means this host). Exit status: 0 reply printed, 1 error reply or failure,
 * 3 no answer within SECONDS (default 5). A message to an address that no pump
 * of this machine has is dropped without an answer, so the time-out matters.
 *
 * The reply arrives on the library's router thread; main waits for it on a
 * condition variable.
 */
#define _POSIX_C_SOURCE 200809L
#include <ulmarcomms.h>

#include "example_start.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

struct call {
    pthread_mutex_t lock;
    pthread_cond_t done;
    int finished;
    int error; /* error code of an error reply, 0 otherwise */
    char text[1024]; /* the reply's response text */
};

static void log_to_stderr(int level, const char* format, char* args)
{
    (void)level;
    vfprintf(stderr, format, *(va_list*)args);
}

static void finish(struct call* c, int error, const char* text)
{
    pthread_mutex_lock(&c->lock);
    c->error = error;
    snprintf(c->text, sizeof c->text, "%s", text ? text : "");
    c->finished = 1;
    pthread_cond_broadcast(&c->done);
    pthread_mutex_unlock(&c->lock);
}

/* Router thread: a reply; the message is released after we return. */
static void on_response(void* context, unsigned int response_id, void* message)
{
    (void)response_id;
    finish(context, 0, UlmarCommsGetResponse(message));
}

/* Router thread: an error reply (the server's 404 for another method, or 400
 * from another host that has no such pump). */
static void on_error(void* context, unsigned int response_id, int code)
{
    (void)response_id;
    finish(context, code, NULL);
}

int main(int argc, char** argv)
{
    const char* start = "";
    const char* target = "echo";
    int seconds = 5;
    int opt;
    while ((opt = getopt(argc, argv, "s:t:w:")) != -1) {
        switch (opt) {
        case 's': start = optarg; break;
        case 't': target = optarg; break;
        case 'w': seconds = atoi(optarg); break;
        default: optind = argc + 1; break;
        }
    }
    if (optind != argc - 1) {
        fprintf(stderr, "usage: %s [-s START_ARGUMENT] [-t TARGET] [-w SECONDS] TEXT\n", argv[0]);
        return 2;
    }

    UlmarCommsSetLogger(log_to_stderr);
    int rc = example_start(start);
    if (rc != ULMARCOMMS_OK) {
        fprintf(stderr, "echo_client: start failed with %d\n", rc);
        UlmarCommsShutdown();
        return 1;
    }

    /* Pump names are unique on a host: one per client process. */
    char name[64];
    snprintf(name, sizeof name, "echo-client-%ld", (long)getpid());
    struct call c = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0, 0, ""};
    void* pump = UlmarCommsCreateMessagePump(name, &c, NULL, on_response, on_error, NULL);
    void* request = pump ? UlmarCommsCreateMessage(pump, target, "Echo") : NULL;
    if (request != NULL && UlmarCommsMessageAddKeyValue(request, "text", argv[optind]) != ULMARCOMMS_OK) {
        UlmarCommsDestroyMessage(request); /* not posted: still ours */
        request = NULL;
    }
    /* Once posted, the message is the library's whatever the result. */
    if (request == NULL || UlmarCommsPostMessage(pump, request) != ULMARCOMMS_OK) {
        fprintf(stderr, "echo_client: could not send the request\n");
        UlmarCommsDestroyMessagePump(pump);
        UlmarCommsShutdown();
        return 1;
    }

    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += seconds;
    pthread_mutex_lock(&c.lock);
    while (!c.finished && pthread_cond_timedwait(&c.done, &c.lock, &until) == 0) {}
    int finished = c.finished;
    pthread_mutex_unlock(&c.lock);

    /* The pump goes first: no callback touches `c` afterwards. */
    UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();

    if (!finished) {
        fprintf(stderr, "echo_client: no answer from %s within %d s\n", target, seconds);
        return 3;
    }
    if (c.error != 0) {
        fprintf(stderr, "echo_client: error reply %d from %s\n", c.error, target);
        return 1;
    }
    printf("%s\n", c.text);
    return 0;
}
