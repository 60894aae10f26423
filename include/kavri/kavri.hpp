// The C++ interface of kavri: requests, responses and events between local programs, by way
// of a broker.
//
//     kavri::Library library;
//     kavri::Initiator initiator;
//     std::cout << initiator.request("clock", "now", "", 2s).payload() << '\n';
//
// Header only, for C++17 and later, over the C functions of <kavri/ipc.h>, which say what is
// delivered, in which order, and what is known after a failure: all of it holds here. What
// is added: objects that end themselves, messages that own their strings, std::chrono times,
// std::function callbacks, and failures as exceptions or as values. A call does what its C
// function does, and nothing is copied. Link with both libraries, as pkg-config or
// find_package(kavri) say it.
//
// Failures. Each call has two names. `receive` throws kavri::Error, and gives an optional
// where it is no failure that there is nothing; `tryReceive` gives a kavri::Status, or a
// kavri::Result that holds a value or a status. Either may throw std::bad_alloc where it
// stores a callback or makes an object.
//
// Texts are taken as kavri::TextView, which comes from literals, std::string and received
// messages without a copy. As everywhere in the C functions, a text ends at its first NUL:
// what a std::string holds behind one is not sent.
//
// Callbacks get their message to keep, on the library's thread, one at a time for each
// initiator or responder.
// - A function and what it captured is kept until it is replaced or removed, or the
//   initiator or responder ends: when that call returns, the function is neither running nor
//   will be called, and what it captured is destroyed. From within the callback itself, it
//   is destroyed as soon as it returns.
// - A callback may do anything, also close or destroy the initiator or responder that calls
//   it, unless another thread is in a call with that. It may use it as long as it runs, also
//   while another thread ends it, which waits for the callback.
// - An exception that leaves a callback ends the program by std::terminate, as one that
//   leaves a thread: it never passes through the library.
// - A function that uses the object it is installed in must not outlive it, and the object
//   must not be moved meanwhile. The connection callback may be called before the constructor
//   of its object has returned.
//
// Threads. As the C functions, all may be called by several threads at the same time, except
// to end, move or assign an object, and Initiator::request.
#ifndef KAVRI_KAVRI_HPP
#define KAVRI_KAVRI_HPP

#include <kavri/cpp/initiator.hpp>
#include <kavri/cpp/library.hpp>
#include <kavri/cpp/message.hpp>
#include <kavri/cpp/options.hpp>
#include <kavri/cpp/responder.hpp>
#include <kavri/cpp/status.hpp>
#include <kavri/cpp/text.hpp>
#include <kavri/cpp/timeout.hpp>

#endif
