// Frames to bytes and back, what is no frame, and the bytes themselves, which
// may never change for this version of the protocol.
#define BOOST_TEST_MODULE frame

#include "wire/frame.h"

#include <boost/test/unit_test.hpp>
#include <filesystem>
#include <set>

#include "support/frames.h"
#include "support/hex_text.h"

using namespace kavri::wire;
using namespace kavri::tests;

namespace {

constexpr std::size_t limit = Limits{}.payloadBytes;
constexpr std::uint64_t someToken = 0x1122334455667788;

const std::filesystem::path goldenFolder = KAVRI_SOURCE_DIR "/tests/unit/golden";

struct Golden {
    std::string name;
    Frame frame;
};

std::vector<Golden> goldens() {
    const Fields fields{"test", "echo", "u-1", "hello"};
    const Fields event{"test", "event", {}, "\xc3\xa9v\xc3\xa9nement"};
    return {
        {"hello", makeFrame(FrameType::hello, 1, {.identifier = "initiator"})},
        {"welcome",
         makeFrame(FrameType::welcome, 1,
                   {.uuid = "6f1ed002-ab5f-4d30-9cf4-1e5a4a4d9d51",
                    .payload = "payload_bytes=1048576\nfield_bytes=65536\nopen_requests=65536\n"})},
        {"request", makeFrame(FrameType::request, someToken, fields)},
        {"request_of_empty_fields", makeFrame(FrameType::request, 0, {"", "", "", ""})},
        {"response", makeFrame(FrameType::response, someToken, fields)},
        {"response_with_empty_payload",
         makeFrame(FrameType::response, someToken, {"test", "echo", "u-1", ""})},
        {"response_without_payload",
         makeFrame(FrameType::response, someToken, {"test", "echo", "u-1", {}})},
        {"completion", makeFrame(FrameType::completion, someToken)},
        {"event", makeFrame(FrameType::event, 0, event)},
        {"publish", makeFrame(FrameType::publish, 0, event)},
        {"subscribe", makeFrame(FrameType::subscribe, 2, {.category = "test"})},
        {"unsubscribe", makeFrame(FrameType::unsubscribe, 3, {.category = "test"})},
        {"registration", makeFrame(FrameType::registration, 4, {.category = "test"})},
        {"acknowledgement", makeFrame(FrameType::acknowledgement, 2)},
        {"acknowledgement_of_failure", makeFrame(FrameType::acknowledgement, 4, {}, 15)},
        {"notice", makeFrame(FrameType::notice, someToken, {}, 10)},
        {"ping", makeFrame(FrameType::ping, UINT64_MAX)},
        {"pong", makeFrame(FrameType::pong, UINT64_MAX)},
        {"goodbye", makeFrame(FrameType::goodbye, 0, {.payload = "the broker is stopping"}, 6)},
        {"query", makeFrame(FrameType::query, 5)},
        {"report", makeFrame(FrameType::report, 5,
                             {.identifier = "traffic", .payload = "requests=12\nresponses=11\n"})},
        {"report_of_a_category",
         makeFrame(FrameType::report, 5,
                   {.category = "test", .identifier = "category", .payload = "subscribers=2\n"})},
        {"monitor", makeFrame(FrameType::monitor, 5,
                              {.category = "test", .payload = "process=4711\npayload_bytes=64\n"})},
        {"observed",
         makeFrame(FrameType::observed, 7,
                   {"test", "echo", "u",
                    "at=1795352711000042\ntype=request\nfrom=5/4711/1000\nto=6/4712/1000\n"
                    "bytes=46\npayload_bytes=5\n\nhello"})},
        {"observed_loss",
         makeFrame(FrameType::observed, 0, {.payload = "at=1795352711000042\nlost=1234\n"})},
    };
}

void checkEqual(const Frame& actual, const Frame& expected) {
    BOOST_TEST(describe(actual) == describe(expected));
    for (std::size_t i = 0; i < fieldCount; ++i) {
        BOOST_TEST((actual.fields[i] == expected.fields[i]));
        BOOST_TEST((actual.fields[i].data() == nullptr) == (expected.fields[i].data() == nullptr));
    }
}

// Why the bytes are no frame; empty where they are one.
std::string whyNot(const std::string& bytes, std::size_t payloadLimit = limit) {
    const Measured measured = measure(bytes.data(), payloadLimit);
    if (measured.error) {
        BOOST_TEST(measured.frameBytes == 0U);
        return std::string(errorText(*measured.error));
    }
    BOOST_TEST(measured.frameBytes == bytes.size());
    return {};
}

std::string text(FrameError error) {
    return std::string(errorText(error));
}

std::string withByte(std::string bytes, std::size_t offset, int value) {
    bytes.at(offset) = static_cast<char>(value);
    return bytes;
}

std::string requestBytes() {
    return encode(makeFrame(FrameType::request, 1, {"test", "echo", "u", "p"}));
}

constexpr std::array namedFields = {Field::category, Field::identifier, Field::uuid};

}  // namespace

BOOST_AUTO_TEST_CASE(everyFrameHasTheBytesThatAreWrittenDown) {
    for (const Golden& golden : goldens()) {
        BOOST_TEST_CONTEXT(golden.name) {
            const std::string bytes = bytesOfHexFile(goldenFolder / (golden.name + ".hex"));
            BOOST_TEST((encode(golden.frame) == bytes));
        }
    }
}

BOOST_AUTO_TEST_CASE(theBytesThatAreWrittenDownAreReadAsTheirFrame) {
    for (const Golden& golden : goldens()) {
        BOOST_TEST_CONTEXT(golden.name) {
            const std::string bytes = bytesOfHexFile(goldenFolder / (golden.name + ".hex"));
            BOOST_TEST(whyNot(bytes) == "");
            const auto frame = decode(bytes.data());
            BOOST_REQUIRE(frame.has_value());
            checkEqual(*frame, golden.frame);
        }
    }
}

BOOST_AUTO_TEST_CASE(everyTypeIsWrittenDownAndEveryFileIsRead) {
    std::set<FrameType> types;
    std::set<std::string> names;
    for (const Golden& golden : goldens()) {
        types.insert(golden.frame.type);
        names.insert(golden.name + ".hex");
    }
    BOOST_TEST(types.size() == allTypes.size());
    for (const auto& file : std::filesystem::directory_iterator(goldenFolder)) {
        BOOST_TEST(names.contains(file.path().filename().string()), file.path() << " is not read");
    }
}

BOOST_AUTO_TEST_CASE(everyTypeComesBackAsItWentOut) {
    for (const FrameType type : allTypes) {
        Frame frame = smallestFrame(type, someToken);
        frame.status = 0xabcd;
        const std::string bytes = encode(frame);
        BOOST_TEST_CONTEXT(typeName(type)) {
            BOOST_TEST(bytes.size() == encodedBytes(frame));
            BOOST_TEST(whyNot(bytes) == "");
            const auto decoded = decode(bytes.data());
            BOOST_REQUIRE(decoded.has_value());
            checkEqual(*decoded, frame);
        }
    }
}

BOOST_AUTO_TEST_CASE(anAbsentFieldDiffersFromAnEmptyOne) {
    const std::string absent = encode(makeFrame(FrameType::response, 1, {"test", "echo", "u", {}}));
    const std::string empty = encode(makeFrame(FrameType::response, 1, {"test", "echo", "u", ""}));
    BOOST_TEST((absent != empty));
    BOOST_TEST(absent.size() == empty.size());
    const auto decodedAbsent = decode(absent.data());
    const auto decodedEmpty = decode(empty.data());
    BOOST_REQUIRE((decodedAbsent && decodedEmpty));
    BOOST_TEST(!decodedAbsent->has(Field::payload));
    BOOST_TEST(decodedEmpty->has(Field::payload));
    BOOST_TEST((*decodedEmpty)[Field::payload].empty());
}

BOOST_AUTO_TEST_CASE(fieldsHoldEveryByteButNul) {
    std::string everyByte;
    for (int c = 1; c < 256; ++c) {
        everyByte += static_cast<char>(c);
    }
    const Frame frame =
        makeFrame(FrameType::request, 1, {everyByte, everyByte, everyByte, everyByte});
    const std::string bytes = encode(frame);
    BOOST_TEST(whyNot(bytes) == "");
    const auto decoded = decode(bytes.data());
    BOOST_REQUIRE(decoded.has_value());
    checkEqual(*decoded, frame);
}

BOOST_AUTO_TEST_CASE(aTypeThatIsNoneIsRefused) {
    for (const int type : {0, 20, 21, 128, 255}) {
        BOOST_TEST(whyNot(withByte(requestBytes(), 4, type)) == text(FrameError::unknownType));
        BOOST_TEST(typeName(static_cast<FrameType>(type)) == "unknown");
    }
}

BOOST_AUTO_TEST_CASE(everyTypeHasANameOfItsOwn) {
    std::set<std::string_view> names;
    for (const FrameType type : allTypes) {
        names.insert(typeName(type));
    }
    BOOST_TEST(names.size() == allTypes.size());
    BOOST_TEST(!names.contains("unknown"));
}

// Any set of fields but those that the type has is refused: the four bits are
// tried in all combinations.
BOOST_AUTO_TEST_CASE(aTypeHasItsFieldsAndNoOthers) {
    for (const FrameType type : allTypes) {
        const Frame smallest = smallestFrame(type, 1);
        std::array<bool, fieldCount> required{};
        for (std::size_t i = 0; i < fieldCount; ++i) {
            required[i] = smallest.fields[i].data() != nullptr;
        }
        for (unsigned present = 0; present < 16; ++present) {
            Frame frame = makeFrame(type, 1);
            bool missing = false;
            bool unexpected = false;
            for (std::size_t i = 0; i < fieldCount; ++i) {
                const bool there = (present & (1U << i)) != 0;
                const auto field = static_cast<Field>(i);
                const bool optional = (type == FrameType::response && field == Field::payload) ||
                                      (type == FrameType::report && field == Field::category) ||
                                      (type == FrameType::monitor &&
                                       (field == Field::category || field == Field::payload)) ||
                                      (type == FrameType::observed && field != Field::payload);
                frame.fields[i] = there ? std::string_view("x") : std::string_view();
                missing = missing || (required[i] && !there);
                unexpected = unexpected || (there && !required[i] && !optional);
            }
            const std::string expected = missing      ? text(FrameError::fieldMissing)
                                         : unexpected ? text(FrameError::fieldUnexpected)
                                                      : "";
            BOOST_TEST(whyNot(encode(frame)) == expected, typeName(type) << " " << present);
        }
    }
}

BOOST_AUTO_TEST_CASE(anUnknownFieldIsUnexpected) {
    for (unsigned unknown = 4; unknown < 8; ++unknown) {
        const int present = static_cast<int>(0x0fU | (1U << unknown));
        BOOST_TEST(whyNot(withByte(requestBytes(), 5, present)) ==
                   text(FrameError::fieldUnexpected));
    }
}

BOOST_AUTO_TEST_CASE(lengthsThatContradictEachOtherAreRefused) {
    const std::string bytes = requestBytes();
    const int length = static_cast<unsigned char>(bytes[0]);
    BOOST_TEST(whyNot(bytes) == "");
    for (const int wrong : {0, 31, 32, length - 1, length + 1}) {
        BOOST_TEST(whyNot(withByte(bytes, 0, wrong)) == text(FrameError::lengthMismatch));
    }
    for (const std::size_t fieldLength : {16U, 20U, 24U, 28U}) {
        for (const int wrong : {0, 2 + bytes[fieldLength]}) {
            BOOST_TEST(whyNot(withByte(bytes, fieldLength, wrong)) ==
                       text(FrameError::lengthMismatch));
        }
    }
    BOOST_TEST(whyNot(withByte(bytes, 3, 1)) == text(FrameError::lengthMismatch));
}

BOOST_AUTO_TEST_CASE(anAbsentFieldHasNoLength) {
    std::string bytes = encode(makeFrame(FrameType::response, 1, {"test", "echo", "u", {}}));
    bytes[28] = 1;  // a payload of one byte, without its bit
    bytes[0] = static_cast<char>(bytes[0] + 1);
    bytes += "p";
    BOOST_TEST(whyNot(bytes) == text(FrameError::lengthMismatch));
}

BOOST_AUTO_TEST_CASE(aNameMayHave64KiBAndNotAByteMore) {
    const std::string longest(fieldLimitBytes, 'n');
    const std::string tooLong(fieldLimitBytes + 1, 'n');
    for (const Field field : namedFields) {
        Frame frame = makeFrame(FrameType::request, 1, {"test", "echo", "u", "p"});
        frame[field] = longest;
        BOOST_TEST(whyNot(encode(frame)) == "");
        frame[field] = tooLong;
        BOOST_TEST(whyNot(encode(frame)) == text(FrameError::fieldTooLong));
    }
}

BOOST_AUTO_TEST_CASE(allNamesMayBeAtTheirLimitTogether) {
    const std::string longest(fieldLimitBytes, 'n');
    const std::string payload(limit, 'p');
    const Frame frame = makeFrame(FrameType::request, 1, {longest, longest, longest, payload});
    const std::string bytes = encode(frame);
    BOOST_TEST(whyNot(bytes) == "");
    const auto decoded = decode(bytes.data());
    BOOST_REQUIRE(decoded.has_value());
    checkEqual(*decoded, frame);
}

BOOST_AUTO_TEST_CASE(aPayloadMayHaveTheNegotiatedLengthAndNotAByteMore) {
    for (const std::size_t negotiated : {std::size_t{1}, std::size_t{1000}, limit, 2 * limit}) {
        const std::string longest(negotiated, 'p');
        const std::string tooLong(negotiated + 1, 'p');
        Frame frame = makeFrame(FrameType::request, 1, {"test", "echo", "u", longest});
        BOOST_TEST(whyNot(encode(frame), negotiated) == "");
        frame[Field::payload] = tooLong;
        BOOST_TEST(whyNot(encode(frame), negotiated) == text(FrameError::payloadTooLong));
    }
}

// Lengths whose sum passes 32 bits must not come round to a short frame.
BOOST_AUTO_TEST_CASE(theLargestLengthsDoNotOverflow) {
    std::string bytes = requestBytes();
    bytes.replace(16, 16, std::string(16, '\xff'));
    BOOST_TEST(whyNot(bytes) == text(FrameError::fieldTooLong));
    bytes = requestBytes();
    bytes.replace(28, 4, "\xff\xff\xff\xff");
    BOOST_TEST(whyNot(bytes) == text(FrameError::payloadTooLong));
    BOOST_TEST(whyNot(bytes, SIZE_MAX) == text(FrameError::lengthMismatch));
    // All four lengths together are 33 bytes more than fit into 32 bits.
    bytes = requestBytes();
    bytes.replace(28, 4, "\xf8\xff\xff\xff");
    BOOST_TEST(whyNot(withByte(bytes, 0, 33), SIZE_MAX) == text(FrameError::lengthMismatch));
}

BOOST_AUTO_TEST_CASE(aNulInAnyFieldIsFound) {
    for (std::size_t i = 0; i < fieldCount; ++i) {
        for (const std::size_t position : {0U, 1U, 2U}) {
            Frame frame = makeFrame(FrameType::request, 1, {"cat", "ide", "uui", "pay"});
            std::string field = "abc";
            field[position] = '\0';
            frame.fields[i] = field;
            const std::string bytes = encode(frame);
            BOOST_TEST(whyNot(bytes) == "");  // the header cannot show it
            BOOST_TEST(!decode(bytes.data()).has_value());
        }
    }
}

BOOST_AUTO_TEST_CASE(everyErrorHasATextOfItsOwn) {
    std::set<std::string_view> texts;
    for (const FrameError error :
         {FrameError::lengthMismatch, FrameError::unknownType, FrameError::fieldMissing,
          FrameError::fieldUnexpected, FrameError::fieldTooLong, FrameError::payloadTooLong,
          FrameError::nulInField}) {
        texts.insert(errorText(error));
    }
    BOOST_TEST(texts.size() == 7U);
}

BOOST_AUTO_TEST_CASE(replacingTheTokenChangesNothingElse) {
    for (const std::uint64_t token : {std::uint64_t{0}, someToken, UINT64_MAX}) {
        std::string bytes = requestBytes();
        replaceToken(bytes.data(), token);
        BOOST_TEST(
            (bytes == encode(makeFrame(FrameType::request, token, {"test", "echo", "u", "p"}))));
    }
}

BOOST_AUTO_TEST_CASE(replacingTheTypeChangesNothingElse) {
    const Fields fields{"test", "event", {}, "p"};
    std::string bytes = encode(makeFrame(FrameType::publish, someToken, fields, 3));
    replaceType(bytes.data(), FrameType::event);
    BOOST_TEST((bytes == encode(makeFrame(FrameType::event, someToken, fields, 3))));
}

BOOST_AUTO_TEST_CASE(framesFollowOneAnotherWithoutGaps) {
    std::string bytes = "before";
    appendEncoded(makeFrame(FrameType::ping, 1), bytes);
    appendEncoded(makeFrame(FrameType::subscribe, 2, {.category = "test"}), bytes);
    BOOST_TEST(bytes.substr(0, 6) == "before");
    BOOST_TEST(describeAll(std::string_view(bytes).substr(6)) ==
               "ping 1\nsubscribe 2 category=test");
}

BOOST_AUTO_TEST_CASE(theCategoryIsReadAsSoonAsAllOfItIsThere) {
    using kavri::wire::categoryOf;
    const std::string bytes =
        encode(makeFrame(FrameType::request, 1, {"category", "identifier", "u", "payload"}));
    BOOST_TEST(categoryOf(bytes.data(), bytes.size()).value() == "category");
    BOOST_TEST(categoryOf(bytes.data(), 40).value() == "category");
    BOOST_TEST(!categoryOf(bytes.data(), 39).has_value());
    const std::string without = encode(makeFrame(FrameType::ping, 1));
    BOOST_TEST(!categoryOf(without.data(), without.size()).has_value());
}
