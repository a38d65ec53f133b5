/*
 * system_query - asks the system router's endpoint questions and prints the
 * answers.
 *
 *   system_query [-s START_ARGUMENT] [-H HOST] [-a KEY=VALUE]... [METHOD]...
 *
 * Each METHOD (default: "SystemInfo" and "ViewSystemRouterRoutingTable") is
 * sent to the endpoint "/system" of this host, or of HOST, with the -a pairs
 * as arguments (for example -a inters=example.echo with "#AdsSupIs"). Answers
 * are printed as "== METHOD" followed by the response text. Exit 1 on an
 * error reply or failure, 3 when an answer does not come within 5 seconds.
 *
 * Replies arrive on the router thread and are matched to requests by the
 * request's id.
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

struct answer {
    pthread_mutex_t lock;
    pthread_cond_t done;
    unsigned int waiting_for; /* id of the request in flight */
    int finished;
    int error;
    char* text; /* malloc'd response text */
};

static void log_to_stderr(int level, const char* format, char* args)
{
    (void)level;
    vfprintf(stderr, format, *(va_list*)args);
}

static void finish(struct answer* a, unsigned int id, int error, const char* text)
{
    pthread_mutex_lock(&a->lock);
    if (id == a->waiting_for && !a->finished) {
        a->error = error;
        a->text = strdup(text ? text : "");
        a->finished = 1;
        pthread_cond_broadcast(&a->done);
    }
    pthread_mutex_unlock(&a->lock);
}

static void on_response(void* context, unsigned int response_id, void* message)
{
    finish(context, response_id, 0, UlmarCommsGetResponse(message));
}

static void on_error(void* context, unsigned int response_id, int code)
{
    finish(context, response_id, code, NULL);
}

/* Sends one query and prints its answer; returns the exit status. */
static int query(void* pump, struct answer* a, const char* target, const char* method, char** pairs, int npairs)
{
    void* request = UlmarCommsCreateMessage(pump, target, method);
    for (int i = 0; request != NULL && i < npairs; i++) {
        char* eq = strchr(pairs[i], '=');
        *eq = '\0';
        int rc = UlmarCommsMessageAddKeyValue(request, pairs[i], eq + 1);
        *eq = '=';
        if (rc != ULMARCOMMS_OK) {
            UlmarCommsDestroyMessage(request);
            request = NULL;
        }
    }
    if (request == NULL)
        return 1;

    pthread_mutex_lock(&a->lock);
    a->waiting_for = (unsigned int)UlmarCommsMessageId(pump, request);
    a->finished = 0;
    pthread_mutex_unlock(&a->lock);
    if (UlmarCommsPostMessage(pump, request) != ULMARCOMMS_OK) /* the library's now */
        return 1;

    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 5;
    pthread_mutex_lock(&a->lock);
    while (!a->finished && pthread_cond_timedwait(&a->done, &a->lock, &until) == 0) {}
    int status = !a->finished ? 3 : a->error != 0 ? 1 : 0;
    if (status == 3)
        fprintf(stderr, "system_query: no answer to %s\n", method);
    else if (status == 1)
        fprintf(stderr, "system_query: %s answered with error %d\n", method, a->error);
    else
        printf("== %s\n%s%s", method, a->text, a->text[0] && a->text[strlen(a->text) - 1] != '\n' ? "\n" : "");
    free(a->text);
    a->text = NULL;
    a->finished = 0;
    a->waiting_for = 0; /* ids start at 1: a late answer is ignored */
    pthread_mutex_unlock(&a->lock);
    return status;
}

int main(int argc, char** argv)
{
    const char* start = "";
    const char* host = "";
    char* pairs[24];
    int npairs = 0;
    int opt;
    while ((opt = getopt(argc, argv, "s:H:a:")) != -1) {
        if (opt == 's') {
            start = optarg;
        } else if (opt == 'H') {
            host = optarg;
        } else if (opt == 'a' && strchr(optarg, '=') != NULL && npairs < 24) {
            pairs[npairs++] = optarg;
        } else {
            fprintf(stderr, "usage: %s [-s START_ARGUMENT] [-H HOST] [-a KEY=VALUE]... [METHOD]...\n", argv[0]);
            return 2;
        }
    }

    UlmarCommsSetLogger(log_to_stderr);
    int rc = example_start(start);
    if (rc != ULMARCOMMS_OK) {
        fprintf(stderr, "system_query: start failed with %d\n", rc);
        UlmarCommsShutdown();
        return 1;
    }

    char name[64], target[300];
    snprintf(name, sizeof name, "system-query-%ld", (long)getpid());
    snprintf(target, sizeof target, "%s@/system", host); /* "@/system": this host */
    struct answer a = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0, 0, 0, NULL};
    void* pump = UlmarCommsCreateMessagePump(name, &a, NULL, on_response, on_error, NULL);

    int status = pump ? 0 : 1;
    if (pump != NULL && optind == argc) {
        status = query(pump, &a, target, "SystemInfo", pairs, npairs);
        if (status == 0)
            status = query(pump, &a, target, "ViewSystemRouterRoutingTable", pairs, npairs);
    }
    for (int i = optind; pump != NULL && status == 0 && i < argc; i++)
        status = query(pump, &a, target, argv[i], pairs, npairs);

    UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    return status;
}
