/* Mentions the structures that reach the library only through pointers to void, or
 * in a callback, so that a description of this object has them. */
#include <kavri/ipc.h>

void kavri_public_types(const kavri_core_ipc_options* options,
                        const kavri_core_ipc_connection_change* change,
                        const kavri_core_ipc_command* command,
                        const kavri_core_ipc_request* request);

void kavri_public_types(const kavri_core_ipc_options* options,
                        const kavri_core_ipc_connection_change* change,
                        const kavri_core_ipc_command* command,
                        const kavri_core_ipc_request* request) {
    (void)options;
    (void)change;
    (void)command;
    (void)request;
}
