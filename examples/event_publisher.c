/*
 * event_publisher - publishes the event "temperature" at a steady pace.
 *
 *   event_publisher [-s START_ARGUMENT] [-n NAME] [-i MILLISECONDS] [-c COUNT]
 *
 * The pump NAME (default "weather") creates the event and posts one event
 * message every MILLISECONDS (default 200) carrying "celsius" and "sample".
 * The library sends a copy to every listener that registered for the event
 * (see event_subscriber); with no listener an event goes nowhere. Runs until
 * SIGINT/SIGTERM or after COUNT events (0, the default: no limit).
 *
 * Listener registrations are answered by the pump itself, on the router
 * thread, so this program needs no callback at all.
 */
#define _POSIX_C_SOURCE 200809L
#include <ulmarcomms.h>

#include "example_start.h"

#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

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

static void sleep_ms(long ms)
{
    struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&pause, NULL); /* a signal cuts it short, which is what we want */
}

int main(int argc, char** argv)
{
    const char* start = "";
    const char* name = "weather";
    long interval = 200;
    long count = 0;
    int opt;
    while ((opt = getopt(argc, argv, "s:n:i:c:")) != -1) {
        switch (opt) {
        case 's': start = optarg; break;
        case 'n': name = optarg; break;
        case 'i': interval = atol(optarg); break;
        case 'c': count = atol(optarg); break;
        default:
            fprintf(stderr, "usage: %s [-s START_ARGUMENT] [-n NAME] [-i MILLISECONDS] [-c COUNT]\n", argv[0]);
            return 2;
        }
    }

    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    UlmarCommsSetLogger(log_to_stderr);
    int rc = example_start(start);
    if (rc != ULMARCOMMS_OK) {
        fprintf(stderr, "event_publisher: start failed with %d\n", rc);
        UlmarCommsShutdown();
        return 1;
    }

    void* pump = UlmarCommsCreateMessagePump(name, NULL, NULL, NULL, NULL, "example.weather");
    if (pump == NULL || UlmarCommsMessagePumpCreateEvent(pump, "temperature") != ULMARCOMMS_OK) {
        fprintf(stderr, "event_publisher: could not create the pump or its event\n");
        UlmarCommsDestroyMessagePump(pump);
        UlmarCommsShutdown();
        return 1;
    }
    printf("ready %s\n", UlmarCommsMessagePumpAddress(pump));
    fflush(stdout);

    long published = 0;
    while (!g_stop && (count == 0 || published < count)) {
        char celsius[32], sample[32];
        snprintf(celsius, sizeof celsius, "%.1f", 18.0 + (published % 10) * 0.5);
        snprintf(sample, sizeof sample, "%ld", published + 1);
        void* event = UlmarCommsCreateEventMessage(pump, "temperature");
        if (event == NULL)
            break;
        UlmarCommsMessageAddKeyValue(event, "celsius", celsius);
        UlmarCommsMessageAddKeyValue(event, "sample", sample);
        /* Posting hands the event to the library, which copies it to each
         * listener and frees it. */
        if (UlmarCommsPostMessage(pump, event) != ULMARCOMMS_OK)
            fprintf(stderr, "event_publisher: event %s not published\n", sample);
        published++;
        sleep_ms(interval);
    }

    printf("published %ld\n", published);
    UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    return 0;
}
