// A core library that is up at once and does nothing, until it misbehaves: when
// the first request is sent, or while it is loaded.
//
// The environment variable MISBEHAVIOUR says how; see `misbehave`. Built with
// KAVRI_LACKING, the library does not have two of the functions.
#include <kavri/ipc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

std::string misbehaviour() {
    const char* chosen = getenv("MISBEHAVIOUR");
    return chosen != nullptr ? chosen : "";
}

[[noreturn]] void hang() {
    fputs("hanging\n", stderr);
    while (true) {
        pause();
    }
}

// A process that outlives its parent, in a session of its own.
void leaveProcess() {
    if (fork() == 0) {
        setsid();
        if (fork() == 0) {
            hang();
        }
        _exit(0);
    }
}

void misbehave() {
    const std::string how = misbehaviour();
    if (how == "hang") {
        hang();
    } else if (how == "crash") {
        abort();
    } else if (how == "exit") {
        _exit(0);
    } else if (how == "leaveProcess") {
        leaveProcess();
    } else if (how == "startThreads") {
        for (int i = 0; i < 3; ++i) {
            std::thread(hang).detach();
        }
    } else if (how == "print") {
        puts("a line on standard output");
        fputs("a line on standard error\n", stderr);
        fputs("no line break at the end", stdout);
    }
}

__attribute__((constructor)) void misbehaveWhileLoaded() {
    if (misbehaviour() == "crashWhenLoaded") {
        fputs("cannot be loaded\n", stderr);
        abort();
    }
    if (misbehaviour() == "hangWhenLoaded") {
        hang();
    }
}

}  // namespace

extern "C" {

kavri_core_status kavri_core_init(void) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_deinit(void) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status kavri_core_logging_init(const char*, kavri_core_logging_cookie*) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_logging_deinit(kavri_core_logging_cookie) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status kavri_core_ipc_initiator_init(kavri_core_logging_cookie, void*,
                                                kavri_core_ipc_initiator** initiator) {
    static char handle;
    *initiator = reinterpret_cast<kavri_core_ipc_initiator*>(&handle);
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator*) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator*, const char*,
                                                        const char*, const char*, const char*) {
    misbehave();
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator*, int, char**,
                                                            char**, char**, char**) {
    return KAVRI_CORE_STATUS_IPC_NO_MESSAGE;
}

kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator*, kavri_core_ipc_initiator_response_callback, void*) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator*, kavri_core_ipc_initiator_event_callback, void*) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}

#ifndef KAVRI_LACKING
kavri_core_status kavri_core_ipc_initiator_event_subscribe(kavri_core_ipc_initiator*, const char*) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_ipc_initiator_event_unsubscribe(kavri_core_ipc_initiator*,
                                                             const char*) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
#endif

}  // extern "C"
