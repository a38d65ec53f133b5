/*
 * An installed library's first user: starts on the bus named by the start
 * argument (argv[1]), asks the system endpoint "SystemInfo" and prints the
 * answer. Exit 0 only when the answer names this host.
 */
#define _POSIX_C_SOURCE 200809L
#include <ulmarcomms.h>

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_done = PTHREAD_COND_INITIALIZER;
static char g_answer[4096];
static int g_status = -1; /* -1 waiting, 0 answer, else error code */

/* Router thread. */
static void on_response(void* context, unsigned int id, void* message)
{
    (void)context;
    (void)id;
    const char* text = UlmarCommsGetResponse(message);
    pthread_mutex_lock(&g_lock);
    snprintf(g_answer, sizeof g_answer, "%s", text ? text : "");
    g_status = 0;
    pthread_cond_broadcast(&g_done);
    pthread_mutex_unlock(&g_lock);
}

/* Router thread. */
static void on_error(void* context, unsigned int id, int code)
{
    (void)context;
    (void)id;
    pthread_mutex_lock(&g_lock);
    g_status = code;
    pthread_cond_broadcast(&g_done);
    pthread_mutex_unlock(&g_lock);
}

int main(int argc, char** argv)
{
    int rc = UlmarCommsStart(argc > 1 ? argv[1] : "");
    if (rc != ULMARCOMMS_OK) {
        fprintf(stderr, "consumer: start failed with %d\n", rc);
        UlmarCommsShutdown();
        return 1;
    }
    char name[64];
    snprintf(name, sizeof name, "consumer-%ld", (long)getpid());
    void* pump = UlmarCommsCreateMessagePump(name, NULL, NULL, on_response, on_error, NULL);
    void* query = pump ? UlmarCommsCreateMessage(pump, "/system", "SystemInfo") : NULL;
    if (query == NULL || UlmarCommsPostMessage(pump, query) != ULMARCOMMS_OK) {
        fprintf(stderr, "consumer: could not send the query\n");
        UlmarCommsDestroyMessagePump(pump);
        UlmarCommsShutdown();
        return 1;
    }

    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 10;
    pthread_mutex_lock(&g_lock);
    while (g_status == -1 && pthread_cond_timedwait(&g_done, &g_lock, &until) == 0) {
    }
    int status = g_status;
    pthread_mutex_unlock(&g_lock);
    UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();

    char host[256] = "";
    gethostname(host, sizeof host - 1);
    char expected[300];
    snprintf(expected, sizeof expected, "name=%s\n", host);
    if (status != 0 || strstr(g_answer, expected) == NULL) {
        fprintf(stderr, "consumer: status %d, answer '%s'\n", status, g_answer);
        return 1;
    }
    printf("%s", g_answer);
    return 0;
}
