// The subjects on which brokers publish. All begin with "kavri.1.".
//
//     kavri.1.serve.CATEGORY         open a channel: to one of those who serve it
//     kavri.1.events.CATEGORY        its events: to all who import them
//     kavri.1.broker.BROKER.in       everything else, to one broker
//     kavri.1.broker.BROKER.open.N   what the server itself answers to its request N
//
// A category is written with letters, digits, "-" and "_" as they are and every other byte
// as "=" and two hexadecimal digits, an empty one as "="; a BROKER as 32 hexadecimal digits.
#ifndef KAVRI_BROKER_LINK_SUBJECTS_H
#define KAVRI_BROKER_LINK_SUBJECTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "broker/link/envelope.h"

namespace kavri::broker {

// A longer one crosses no link: servers take subjects of a few KiB only.
inline constexpr std::size_t longestLinkedCategory = 512;

std::string hexText(const BrokerIdentity& identity);
// Of a uuid's text.
BrokerIdentity identityOf(std::string_view uuid);

std::string serveSubject(std::string_view category);
std::string eventsSubject(std::string_view category);
std::string brokerSubject(const BrokerIdentity& broker);
// What nobody listens to is answered to these.
std::string answerSubject(const BrokerIdentity& broker, std::uint64_t number);
std::string allAnswersSubject(const BrokerIdentity& broker);
std::optional<std::uint64_t> numberOfAnswer(std::string_view subject);

}  // namespace kavri::broker

#endif
