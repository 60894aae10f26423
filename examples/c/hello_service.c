/* The service "hello": answers each request with a greeting, until SIGINT or SIGTERM.
 *
 * Requests come to a callback, on the library's thread, which also connects again when the
 * broker was restarted. Such a service works on one request at a time; primes_service.c
 * works on several. */
#include <kavri/ipc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void check(kavri_core_status status, const char* call) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        fprintf(stderr, "hello_service: %s: %s\n", call, kavri_core_status_text(status));
        exit(1);
    }
}

/* The four strings are this function's to free. */
static void greet(kavri_core_ipc_request request, char** category, char** identifier, char** uuid,
                  char** name, void* context) {
    kavri_core_ipc_responder* responder = *(kavri_core_ipc_responder**)context;
    kavri_core_status status;
    char greeting[256];
    if (strcmp(*identifier, "greet") == 0) {
        snprintf(greeting, sizeof greeting, "Hello, %s!", *name);
        status = kavri_core_ipc_responder_response_send(responder, request, *category, *identifier,
                                                        *uuid, greeting);
    } else {
        /* Every request is answered or ended. */
        status = kavri_core_ipc_responder_request_end(responder, request);
    }
    /* The connection may just have been lost; the sender learns that by itself. */
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        fprintf(stderr, "hello_service: answering: %s\n", kavri_core_status_text(status));
    }
    free(*category);
    free(*identifier);
    free(*uuid);
    free(*name);
}

int main(void) {
    /* Blocked before there are further threads, so that sigwait gets them. */
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL);

    check(kavri_core_init(), "init");
    kavri_core_ipc_responder* responder = NULL;
    check(kavri_core_ipc_responder_init(NULL, NULL, "hello", &responder), "connecting");
    check(kavri_core_ipc_responder_request_receive_callback(responder, greet, &responder),
          "installing the callback");
    fputs("hello_service: ready\n", stderr);

    int signal = 0;
    sigwait(&stop, &signal);

    check(kavri_core_ipc_responder_deinit(responder), "deinit");
    check(kavri_core_deinit(), "deinit");
    return 0;
}
