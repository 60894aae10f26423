// The good library behind a wrong one. A source of this folder defines the functions that
// it gets wrong, and calls the good library's by GOOD; those that it does not define are
// forwarded to the good library, see forwarding.cpp.
#ifndef KAVRI_TESTS_WRONG_LIBRARIES_GOOD_LIBRARY_H
#define KAVRI_TESTS_WRONG_LIBRARIES_GOOD_LIBRARY_H

#include <kavri/ipc.h>
#include <stdlib.h>
#include <string.h>

// A function of the good library. Ends the process where there is none of the name.
void* goodFunction(const char* name);

#define GOOD(function) reinterpret_cast<decltype(&(function))>(goodFunction(#function))

// Puts another text into a variable that a receive has stored one in.
inline void replaceText(char** variable, const char* text) {
    free(*variable);
    *variable = strdup(text);
}

// What the module gave to an installation, for a library that calls it itself.
struct ResponseCallback {
    kavri_core_ipc_initiator_response_callback call = nullptr;
    void* context = nullptr;
};
struct EventCallback {
    kavri_core_ipc_initiator_event_callback call = nullptr;
    void* context = nullptr;
};

#endif
