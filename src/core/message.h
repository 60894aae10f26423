// A message as callers receive it: up to four strings, allocated one by one with malloc, so
// that the receiver may free each.
#ifndef KAVRI_CORE_MESSAGE_H
#define KAVRI_CORE_MESSAGE_H

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "wire/frame.h"

namespace kavri::core {

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

inline Text newText(std::size_t length) {
    Text text(static_cast<char*>(std::malloc(length + 1)));
    if (text == nullptr) {
        throw std::bad_alloc();
    }
    text.get()[length] = '\0';
    return text;
}

class Message {
  public:
    using Fields = std::array<char*, wire::fieldCount>;

    // Copies the fields of a frame, except for the payload where it has memory of its own,
    // which is taken over; an absent field becomes null. After an exception the frame and
    // its payload are as they were.
    Message(const wire::Frame& frame, Text& payload) : Message(frame.token) {
        for (std::size_t i = 0; i < fields_.size(); ++i) {
            if (payload == nullptr || frame.fields[i].data() != payload.get()) {
                fields_[i] = copyOf(frame.fields[i]);
            }
            bytes_ += frame.fields[i].size();
        }
        if (payload != nullptr) {
            fields_.back() = payload.release();
        }
    }
    Message(Message&& other) noexcept
        : fields_(std::exchange(other.fields_, {})), token_(other.token_), bytes_(other.bytes_) {}
    Message& operator=(Message&& other) noexcept {
        std::swap(fields_, other.fields_);
        std::swap(token_, other.token_);
        std::swap(bytes_, other.bytes_);
        return *this;
    }
    ~Message() {
        for (char* field : fields_) {
            std::free(field);
        }
    }

    std::uint64_t token() const { return token_; }
    std::size_t bytes() const { return bytes_; }
    std::string_view category() const { return fields_[0]; }

    // The strings, which are the caller's from now on.
    Fields release() { return std::exchange(fields_, {}); }

  private:
    // Complete as far as the destructor is concerned, from here on.
    explicit Message(std::uint64_t token) : token_(token) {}

    static char* copyOf(std::string_view text) {
        if (text.data() == nullptr) {
            return nullptr;
        }
        Text copy = newText(text.size());
        std::memcpy(copy.get(), text.data(), text.size());
        return copy.release();
    }

    Fields fields_{};
    std::uint64_t token_;
    std::size_t bytes_ = 0;
};

}  // namespace kavri::core

#endif
