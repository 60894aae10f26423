// Asks the service "hello" for a greeting, and prints it.
//
// Usage: hello [NAME]
// Exit status 1 where there is no greeting, with the reason on standard error.
#include <iostream>
#include <kavri/kavri.hpp>

int main(int argc, char** argv) {
    try {
        const kavri::Library library;
        kavri::Initiator initiator;
        const char* const name = argc > 1 ? argv[1] : "world";
        std::cout << initiator.request("hello", "greet", name, std::chrono::seconds(5)).payload()
                  << '\n';
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "hello: " << error.what() << '\n';
        return 1;
    }
}
