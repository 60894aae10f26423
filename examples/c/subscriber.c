/* Prints the events of the category "news", until SIGINT or SIGTERM. Survives the restart of
 * the broker, and says so, since events may have been missed then. */
#include <kavri/ipc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

static void check(kavri_core_status status, const char* call) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        fprintf(stderr, "subscriber: %s: %s\n", call, kavri_core_status_text(status));
        exit(1);
    }
}

/* Both are called on the library's thread, one at a time. */
static void print(char** category, char** identifier, char** payload, void* context) {
    (void)context;
    printf("%s %s: %s\n", *category, *identifier, *payload);
    fflush(stdout);
    free(*category);
    free(*identifier);
    free(*payload);
}

static void connectionChanged(const kavri_core_ipc_connection_change* change, void* context) {
    (void)context;
    if (change->event == KAVRI_CORE_IPC_CONNECTION_RESTORED) {
        fprintf(stderr, "subscriber: connected again after %llu ms: events may be missing\n",
                (unsigned long long)change->disconnectedMs);
    } else if (change->event != KAVRI_CORE_IPC_CONNECTION_MADE) {
        fprintf(stderr, "subscriber: lost the connection: %s\n", change->reason);
    }
}

int main(void) {
    /* Blocked before there are further threads, so that sigwait gets them. */
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL);

    check(kavri_core_init(), "init");
    kavri_core_ipc_options options = {0};
    options.sizeBytes = sizeof options;
    options.connectionCallback = connectionChanged;
    kavri_core_ipc_initiator* initiator = NULL;
    check(kavri_core_ipc_initiator_init(NULL, &options, &initiator), "connecting");

    /* In this order: events that come without a callback are dropped. */
    check(kavri_core_ipc_initiator_event_receive_callback(initiator, print, NULL),
          "installing the callback");
    check(kavri_core_ipc_initiator_event_subscribe(initiator, "news"), "subscribing");
    fputs("subscriber: ready\n", stderr);

    int signal = 0;
    sigwait(&stop, &signal);

    check(kavri_core_ipc_deinit(initiator), "deinit");
    check(kavri_core_deinit(), "deinit");
    return 0;
}
