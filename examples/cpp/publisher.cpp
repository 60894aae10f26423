// Publishes each line of standard input as an event of the category "news".
//
// Only the responder of a category publishes its events, so this is one; requests to it are
// not received here.
#include <iostream>
#include <kavri/kavri.hpp>
#include <string>

int main() {
    try {
        const kavri::Library library;
        kavri::Responder responder("news");
        for (std::string line; std::getline(std::cin, line);) {
            responder.publish("line", line);  // also where nobody has subscribed
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "publisher: " << error.what() << '\n';
        return 1;
    }
}
