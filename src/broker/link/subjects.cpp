// Names of subjects; see subjects.h.
#include "broker/link/subjects.h"

#include <charconv>

namespace kavri::broker {

namespace {

constexpr std::string_view root = "kavri.1.";
constexpr std::string_view hexDigits = "0123456789abcdef";

void appendHex(std::uint8_t byte, std::string& text) {
    text.push_back(hexDigits[byte >> 4U]);
    text.push_back(hexDigits[byte & 15U]);
}

bool standsForItself(char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= '0' && byte <= '9') || byte == '-' || byte == '_';
}

std::string ofCategory(std::string_view kind, std::string_view category) {
    std::string subject(root);
    subject.append(kind).append(category.empty() ? ".=" : ".");
    for (const char byte : category) {
        if (standsForItself(byte)) {
            subject.push_back(byte);
        } else {
            subject.push_back('=');
            appendHex(static_cast<std::uint8_t>(byte), subject);
        }
    }
    return subject;
}

std::string ofBroker(const BrokerIdentity& broker, std::string_view rest) {
    return std::string(root).append("broker.").append(hexText(broker)).append(rest);
}

}  // namespace

std::string hexText(const BrokerIdentity& identity) {
    std::string text;
    for (const std::uint8_t byte : identity) {
        appendHex(byte, text);
    }
    return text;
}

BrokerIdentity identityOf(std::string_view uuid) {
    BrokerIdentity identity{};
    std::size_t digits = 0;
    for (const char each : uuid) {
        const std::size_t digit = hexDigits.find(each);
        if (digit != std::string_view::npos && digits < 2 * identity.size()) {
            std::uint8_t& byte = identity[digits / 2];
            byte = static_cast<std::uint8_t>(byte << 4U | digit);
            ++digits;
        }
    }
    return identity;
}

std::string serveSubject(std::string_view category) {
    return ofCategory("serve", category);
}

std::string eventsSubject(std::string_view category) {
    return ofCategory("events", category);
}

std::string brokerSubject(const BrokerIdentity& broker) {
    return ofBroker(broker, ".in");
}

std::string answerSubject(const BrokerIdentity& broker, std::uint64_t number) {
    return ofBroker(broker, ".open.") + std::to_string(number);
}

std::string allAnswersSubject(const BrokerIdentity& broker) {
    return ofBroker(broker, ".open.*");
}

std::optional<std::uint64_t> numberOfAnswer(std::string_view subject) {
    const std::string_view text = subject.substr(subject.rfind('.') + 1);
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size() ? std::optional(number)
                                                                    : std::nullopt;
}

}  // namespace kavri::broker
