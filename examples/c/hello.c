/* Asks the service "hello" for a greeting, and prints it.
 *
 * Usage: hello [NAME]
 * Exit status 1 where there is no greeting, with the reason on standard error. */
#include <kavri/ipc.h>
#include <stdio.h>
#include <stdlib.h>

static void check(kavri_core_status status, const char* call) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        fprintf(stderr, "hello: %s: %s\n", call, kavri_core_status_text(status));
        exit(1);
    }
}

int main(int argc, char** argv) {
    const char* name = argc > 1 ? argv[1] : "world";
    check(kavri_core_init(), "init");
    kavri_core_ipc_initiator* initiator = NULL;
    check(kavri_core_ipc_initiator_init(NULL, NULL, &initiator), "connecting");

    /* The uuid comes back in the response: with one request it need not tell it apart. */
    check(kavri_core_ipc_initiator_command_send(initiator, "hello", "greet", "1", name), "sending");

    /* What failed is known by the status: without a service it is "no responder", at once. */
    char* category = NULL;
    char* identifier = NULL;
    char* uuid = NULL;
    char* payload = NULL;
    check(kavri_core_ipc_initiator_response_receive(initiator, 5000, &category, &identifier, &uuid,
                                                    &payload),
          "receiving");
    /* A response may be without a payload; this service always gives one. */
    puts(payload != NULL ? payload : "");
    free(category);
    free(identifier);
    free(uuid);
    free(payload);

    check(kavri_core_ipc_deinit(initiator), "deinit");
    check(kavri_core_deinit(), "deinit");
    return 0;
}
