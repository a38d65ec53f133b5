/*
 * echo_server - answers every "Echo" request with the request's "text".
 *
 *   echo_server [-s START_ARGUMENT] [-n NAME]
 *
 * The pump is called NAME (default "echo") and announces the interface
 * "example.echo". Other methods get an error reply with code 404. The server
 * runs until SIGINT/SIGTERM and then says how many requests it answered.
 *
 * Callbacks run on the library's router thread, so the pump handle they need
 * is published under a lock once UlmarCommsCreateMessagePump has returned.
 */
#define _POSIX_C_SOURCE 200809L
#include <ulmarcomms.h>

#include "example_start.h"

#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

struct server {
    pthread_mutex_t lock;
    pthread_cond_t changed;
    void* pump; /* set once created; read by callbacks */
    long answered; /* requests answered */
};

static volatile sig_atomic_t g_stop;

static void on_signal(int sig)
{
    (void)sig;
    g_stop = 1;
}

static void log_to_stderr(int level, const char* format, char* args)
{
    (void)level;
    vfprintf(stderr, format, *(va_list*)args);
}

/* The pump handle, waiting the moment between creation and publication. */
static void* server_pump(struct server* s)
{
    pthread_mutex_lock(&s->lock);
    while (s->pump == NULL)
        pthread_cond_wait(&s->changed, &s->lock);
    void* pump = s->pump;
    pthread_mutex_unlock(&s->lock);
    return pump;
}

/* Runs on the router thread; the request is released after we return. */
static void on_request(void* context, void* message, const char* to, const char* method)
{
    struct server* s = context;
    void* pump = server_pump(s);
    (void)to;
    if (strcmp(method, "Echo") != 0) {
        UlmarCommsSendErrorMessage(pump, message, 404);
        return;
    }
    const char* text = UlmarCommsMessageValue(message, "text");
    void* reply = UlmarCommsCreateReplyMessage(pump, message, text ? text : "");
    if (reply == NULL || UlmarCommsPostMessage(pump, reply) != ULMARCOMMS_OK) {
        fprintf(stderr, "echo_server: could not answer %s\n", UlmarCommsGetFrom(message));
        return;
    }
    pthread_mutex_lock(&s->lock);
    s->answered++;
    pthread_cond_broadcast(&s->changed);
    pthread_mutex_unlock(&s->lock);
}

int main(int argc, char** argv)
{
    const char* start = "";
    const char* name = "echo";
    int opt;
    while ((opt = getopt(argc, argv, "s:n:")) != -1) {
        switch (opt) {
        case 's': start = optarg; break;
        case 'n': name = optarg; break;
        default: fprintf(stderr, "usage: %s [-s START_ARGUMENT] [-n NAME]\n", argv[0]); return 2;
        }
    }

    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    UlmarCommsSetLogger(log_to_stderr);

    int rc = example_start(start);
    if (rc != ULMARCOMMS_OK) {
        fprintf(stderr, "echo_server: start failed with %d\n", rc);
        UlmarCommsShutdown();
        return 1;
    }

    struct server s = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, NULL, 0};
    void* pump = UlmarCommsCreateMessagePump(name, &s, on_request, NULL, NULL, "example.echo");
    if (pump == NULL) {
        fprintf(stderr, "echo_server: could not create the pump %s\n", name);
        UlmarCommsShutdown();
        return 1;
    }
    pthread_mutex_lock(&s.lock);
    s.pump = pump;
    pthread_cond_broadcast(&s.changed);
    pthread_mutex_unlock(&s.lock);
    printf("ready %s\n", UlmarCommsMessagePumpAddress(pump));
    fflush(stdout);

    /* Wake up now and then to notice a signal. */
    pthread_mutex_lock(&s.lock);
    while (!g_stop) {
        struct timespec until;
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += 100 * 1000 * 1000;
        if (until.tv_nsec >= 1000000000) {
            until.tv_sec++;
            until.tv_nsec -= 1000000000;
        }
        pthread_cond_timedwait(&s.changed, &s.lock, &until);
    }
    long answered = s.answered;
    pthread_mutex_unlock(&s.lock);

    printf("answered %ld\n", answered);
    /* Shutting down closes the link at once: replies still waiting to be
     * sent are lost, which is why a server stops on a signal and not right
     * after posting its last answer. */
    UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    return 0;
}
