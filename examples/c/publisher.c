/* Publishes each line of standard input as an event of the category "news".
 *
 * Only the responder of a category publishes its events, so this is one; requests to it are
 * not received here. */
#include <kavri/ipc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void check(kavri_core_status status, const char* call) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        fprintf(stderr, "publisher: %s: %s\n", call, kavri_core_status_text(status));
        exit(1);
    }
}

int main(void) {
    check(kavri_core_init(), "init");
    kavri_core_ipc_responder* responder = NULL;
    check(kavri_core_ipc_responder_init(NULL, NULL, "news", &responder), "connecting");

    char line[4096];
    while (fgets(line, sizeof line, stdin) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        /* Succeeds also where nobody has subscribed. */
        check(kavri_core_ipc_responder_event_publish(responder, "news", "line", line),
              "publishing");
    }

    check(kavri_core_ipc_responder_deinit(responder), "deinit");
    check(kavri_core_deinit(), "deinit");
    return 0;
}
