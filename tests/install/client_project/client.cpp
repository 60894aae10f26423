// A C++ program outside of the source tree: sends a request that nobody serves, and
// prints in words what became of it. Built with find_package(kavri).
#include <kavri/ipc.h>

#include <iostream>

int main() {
    kavri_core_init();
    kavri_core_ipc_initiator* initiator = nullptr;
    kavri_core_status status = kavri_core_ipc_initiator_init(nullptr, nullptr, &initiator);
    if (status == KAVRI_CORE_STATUS_NO_ERROR) {
        kavri_core_ipc_initiator_command_send(initiator, "nobody", "", "", "");
        char* category = nullptr;
        char* identifier = nullptr;
        char* uuid = nullptr;
        char* payload = nullptr;
        status = kavri_core_ipc_initiator_response_receive(initiator, 10000, &category, &identifier,
                                                           &uuid, &payload);
        kavri_core_ipc_deinit(initiator);
    }
    kavri_core_deinit();
    std::cout << kavri_core_status_text(status) << std::endl;
    return 0;
}
