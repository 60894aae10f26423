// Compiled as C++17: every function of the C++ interface, of objects that were moved from.
#define BOOST_TEST_MODULE cppStandard

#include <boost/test/unit_test.hpp>
#include <kavri/kavri.hpp>
#include <type_traits>
#include <vector>

static_assert(__cplusplus == 201703L, "the options of this file say so");
static_assert(std::is_nothrow_move_constructible<kavri::Initiator>::value, "");
static_assert(std::is_nothrow_move_assignable<kavri::Responder>::value, "");
static_assert(!std::is_copy_constructible<kavri::Initiator>::value, "");
static_assert(!std::is_copy_constructible<kavri::Response>::value, "");

namespace {

constexpr auto refused = KAVRI_CORE_STATUS_INVALID_ARGUMENT;

struct NoBroker {
    NoBroker() {
        options.brokerAddress = "/dev/null/nothing";
        options.connectTimeout = std::chrono::milliseconds(1);
    }
    kavri::Library library;
    kavri::Options options;
};

template <typename Call>
kavri::Status thrownBy(const Call& call) {
    try {
        call();
    } catch (const kavri::Error& error) {
        return error.status();
    }
    return KAVRI_CORE_STATUS_NO_ERROR;
}

}  // namespace

BOOST_FIXTURE_TEST_CASE(withoutABrokerThereIsNoObject, NoBroker) {
    constexpr auto unavailable = KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE;
    BOOST_TEST(thrownBy([this] { kavri::Initiator initiator(options); }) == unavailable);
    BOOST_TEST(thrownBy([this] { kavri::Responder responder("work", options); }) == unavailable);
    BOOST_TEST(kavri::Initiator::tryConnect(options).status() == unavailable);
    BOOST_TEST(kavri::Responder::tryConnect("work", options).status() == unavailable);
}

BOOST_FIXTURE_TEST_CASE(timesBelowZeroAreRefused, NoBroker) {
    options.connectTimeout = std::chrono::milliseconds(-1);
    BOOST_TEST(kavri::Initiator::tryConnect(options).status() == refused);
    options.connectTimeout = {};
    options.sendTimeout = std::chrono::milliseconds(-1);
    BOOST_TEST(kavri::Responder::tryConnect("work", options).status() == refused);
}

BOOST_FIXTURE_TEST_CASE(anAddressThatCannotBeOneIsRefused, NoBroker) {
    options.brokerAddress = "";
    BOOST_TEST(kavri::Initiator::tryConnect(options).status() ==
               KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID);
}

BOOST_AUTO_TEST_CASE(withoutTheLibraryThereIsNoObject) {
    BOOST_TEST(kavri::Initiator::tryConnect().status() == KAVRI_CORE_STATUS_NOT_INITIALISED);
    BOOST_TEST(thrownBy([] { kavri::Logging log("name"); }) == KAVRI_CORE_STATUS_NOT_INITIALISED);
}

BOOST_AUTO_TEST_CASE(theLibraryIsUpAsLongAsOneOfItsObjectsIs) {
    kavri::Library first;
    {
        kavri::Library second(std::move(first));
        const kavri::Library third;
        first = std::move(second);
    }
    kavri::Logging log("name");
    BOOST_TEST((log.cookie() != nullptr));
    const kavri::Logging moved(std::move(log));
    BOOST_TEST((moved.cookie() != nullptr));
    BOOST_TEST((log.cookie() == nullptr));  // NOLINT(bugprone-use-after-move)
    { const kavri::Library ended(std::move(first)); }
    BOOST_TEST(kavri_core_deinit() == KAVRI_CORE_STATUS_NOT_INITIALISED);
}
