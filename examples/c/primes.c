/* Asks the service "primes" how many primes there are below 1000, 2000 and so on, and prints
 * the answers in this order. All requests are under way at the same time, so that the service
 * can use all cores; answers come as they are ready, each with the uuid of its request.
 *
 * Usage: primes [COUNT]   COUNT up to 1000, 10 where it is not given */
#include <kavri/ipc.h>
#include <stdio.h>
#include <stdlib.h>

enum { most = 1000, textBytes = 16 };

static void check(kavri_core_status status, const char* call) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        fprintf(stderr, "primes: %s: %s\n", call, kavri_core_status_text(status));
        exit(1);
    }
}

static void sendAll(kavri_core_ipc_initiator* initiator, size_t count) {
    static char uuids[most][textBytes];
    static char limits[most][textBytes];
    static kavri_core_ipc_command commands[most];
    for (size_t i = 0; i < count; ++i) {
        snprintf(uuids[i], textBytes, "%zu", i);
        snprintf(limits[i], textBytes, "%zu", (i + 1) * 1000);
        commands[i] = (kavri_core_ipc_command){"primes", "below", uuids[i], limits[i]};
    }
    size_t sent = 0;
    check(kavri_core_ipc_initiator_command_send_batch(initiator, commands, count, &sent),
          "sending");
}

/* Stores one answer where its uuid says. */
static void receiveOne(kavri_core_ipc_initiator* initiator, size_t count, char** answers) {
    char* category = NULL;
    char* identifier = NULL;
    char* uuid = NULL;
    char* payload = NULL;
    check(kavri_core_ipc_initiator_response_receive(initiator, 60000, &category, &identifier, &uuid,
                                                    &payload),
          "receiving");
    char* end = NULL;
    const unsigned long place = strtoul(uuid, &end, 10);
    if (end == uuid || *end != '\0' || place >= count || answers[place] != NULL ||
        payload == NULL) {
        fprintf(stderr, "primes: an answer to nothing that was asked: uuid %s\n", uuid);
        exit(1);
    }
    answers[place] = payload;
    free(category);
    free(identifier);
    free(uuid);
}

int main(int argc, char** argv) {
    const size_t count = argc > 1 ? strtoul(argv[1], NULL, 10) : 10;
    if (count == 0 || count > most) {
        fprintf(stderr, "usage: primes [COUNT]   with COUNT from 1 to %d\n", (int)most);
        return 64;
    }
    check(kavri_core_init(), "init");
    kavri_core_ipc_initiator* initiator = NULL;
    check(kavri_core_ipc_initiator_init(NULL, NULL, &initiator), "connecting");

    static char* answers[most];
    sendAll(initiator, count);
    for (size_t i = 0; i < count; ++i) {
        receiveOne(initiator, count, answers);
    }
    for (size_t i = 0; i < count; ++i) {
        printf("%zu primes below %zu\n", (size_t)strtoul(answers[i], NULL, 10), (i + 1) * 1000);
        free(answers[i]);
    }

    check(kavri_core_ipc_deinit(initiator), "deinit");
    check(kavri_core_deinit(), "deinit");
    return 0;
}
