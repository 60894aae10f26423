// A C++ program outside of the source tree: asks the test service for an echo, prints it, and
// what becomes of a request that nobody serves. Built with find_package(kavri), and with the
// flags of pkg-config.
#include <iostream>
#include <kavri/kavri.hpp>

int main() {
    try {
        const kavri::Library library;
        kavri::Initiator initiator;
        std::cout << initiator.request("test", "echo", "hello").payload() << ", "
                  << kavri_core_status_text(initiator.tryRequest("nobody", "", "").status())
                  << std::endl;
        return 0;
    } catch (const kavri::Error& error) {
        std::cerr << "client: " << error.what() << std::endl;
        return 1;
    }
}
