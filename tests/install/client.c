/* A C program outside of the source tree: asks the test service for an echo, and
 * prints it. Built with the flags of pkg-config. */
#include <kavri/ipc.h>
#include <stdio.h>
#include <stdlib.h>

static int fail(const char* what, kavri_core_status status) {
    fprintf(stderr, "client: %s: %s\n", what, kavri_core_status_text(status));
    return 1;
}

int main(void) {
    kavri_core_ipc_initiator* initiator = NULL;
    char* category = NULL;
    char* identifier = NULL;
    char* uuid = NULL;
    char* payload = NULL;
    kavri_core_init();
    kavri_core_status status = kavri_core_ipc_initiator_init(NULL, NULL, &initiator);
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        return fail("init", status);
    }
    status = kavri_core_ipc_initiator_command_send(initiator, "test", "echo", "1", "hello");
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        return fail("send", status);
    }
    status = kavri_core_ipc_initiator_response_receive(initiator, 10000, &category, &identifier,
                                                       &uuid, &payload);
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        return fail("receive", status);
    }
    puts(payload);
    free(category);
    free(identifier);
    free(uuid);
    free(payload);
    kavri_core_ipc_deinit(initiator);
    kavri_core_deinit();
    return 0;
}
