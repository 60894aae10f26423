/* The service "primes", with a worker for each core: counts the primes below the number that
 * a request has as its payload, until SIGINT or SIGTERM.
 *
 * All workers receive from one responder, each answers what it received; answers leave in the
 * order in which they are ready.
 *
 * Usage: primes_service [WORKERS] */
#include <kavri/ipc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static void check(kavri_core_status status, const char* call) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        fprintf(stderr, "primes_service: %s: %s\n", call, kavri_core_status_text(status));
        exit(1);
    }
}

static unsigned long primesBelow(unsigned long limit) {
    unsigned long count = 0;
    for (unsigned long number = 2; number < limit; ++number) {
        unsigned long divisor = 2;
        while (divisor * divisor <= number && number % divisor != 0) {
            ++divisor;
        }
        count += divisor * divisor > number ? 1 : 0;
    }
    return count;
}

/* One request, from the receive to the answer. */
static kavri_core_status serveOne(kavri_core_ipc_responder* responder) {
    kavri_core_ipc_request request;
    char* category = NULL;
    char* identifier = NULL;
    char* uuid = NULL;
    char* payload = NULL;
    const kavri_core_status received = kavri_core_ipc_responder_request_receive(
        responder, -1, &request, &category, &identifier, &uuid, &payload);
    if (received != KAVRI_CORE_STATUS_NO_ERROR) {
        return received;
    }
    char answer[32];
    snprintf(answer, sizeof answer, "%lu", primesBelow(strtoul(payload, NULL, 10)));
    const kavri_core_status answered = kavri_core_ipc_responder_response_send(
        responder, request, category, identifier, uuid, answer);
    /* The connection may just have been lost; the sender learns that by itself. */
    if (answered != KAVRI_CORE_STATUS_NO_ERROR) {
        fprintf(stderr, "primes_service: answering: %s\n", kavri_core_status_text(answered));
    }
    free(category);
    free(identifier);
    free(uuid);
    free(payload);
    return KAVRI_CORE_STATUS_NO_ERROR;
}

static void* work(void* responder) {
    while (1) {
        const kavri_core_status status = serveOne(responder);
        if (status == KAVRI_CORE_STATUS_IPC_FAILED) { /* there is a callback: see main */
            return NULL;
        }
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            fprintf(stderr, "primes_service: receiving: %s\n", kavri_core_status_text(status));
        }
        /* After a lost connection the next receive connects again. Where that fails it
         * returns at once. */
        if (status != KAVRI_CORE_STATUS_NO_ERROR &&
            status != KAVRI_CORE_STATUS_IPC_CONNECTION_LOST) {
            sleep(1);
        }
    }
}

/* What comes when the workers no longer take it: its sender sees "responder lost". */
static void drop(kavri_core_ipc_request request, char** category, char** identifier, char** uuid,
                 char** payload, void* context) {
    (void)request;
    (void)context;
    free(*category);
    free(*identifier);
    free(*uuid);
    free(*payload);
}

int main(int argc, char** argv) {
    const long count = argc > 1 ? strtol(argv[1], NULL, 10) : sysconf(_SC_NPROCESSORS_ONLN);
    pthread_t* workers = count > 0 ? calloc((size_t)count, sizeof *workers) : NULL;
    if (workers == NULL) {
        fputs("usage: primes_service [WORKERS]\n", stderr);
        return 64;
    }
    /* Blocked before there are further threads, so that sigwait gets them. */
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL);

    check(kavri_core_init(), "init");
    kavri_core_ipc_responder* responder = NULL;
    check(kavri_core_ipc_responder_init(NULL, NULL, "primes", &responder), "connecting");
    for (long i = 0; i < count; ++i) {
        if (pthread_create(&workers[i], NULL, work, responder) != 0) {
            fputs("primes_service: no thread\n", stderr);
            return 1;
        }
    }
    fprintf(stderr, "primes_service: ready, %ld workers\n", count);

    int signal = 0;
    sigwait(&stop, &signal);

    /* With a callback installed every receive ends: so each worker ends, with what it works
     * on answered. */
    check(kavri_core_ipc_responder_request_receive_callback(responder, drop, NULL), "stopping");
    for (long i = 0; i < count; ++i) {
        pthread_join(workers[i], NULL);
    }
    free(workers);
    check(kavri_core_ipc_responder_deinit(responder), "deinit");
    check(kavri_core_deinit(), "deinit");
    return 0;
}
