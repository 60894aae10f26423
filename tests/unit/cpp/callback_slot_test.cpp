// When the functions behind callbacks end: with a stand-in for the C function that installs
// them, which a test calls and lets wait as the library would.
#define BOOST_TEST_MODULE cppCallbackSlot

#include <boost/test/unit_test.hpp>
#include <functional>
#include <kavri/cpp/callback.hpp>
#include <memory>

namespace {

using Slot = kavri::detail::CallbackSlot<int>;
using Callback = kavri::detail::Callback<int>;
constexpr auto good = KAVRI_CORE_STATUS_NO_ERROR;

struct Fixture {
    Slot slot;
    void* installed = nullptr;
    int calls = 0;

    kavri::Status install(void* context) {
        installed = context;
        return good;
    }
    kavri::Status replace(std::function<void(int)> function) {
        return slot.replace(std::move(function),
                            [this](void* context) { return install(context); });
    }
    // A function that keeps `captured`.
    std::function<void(int)> counter(std::shared_ptr<int> captured) {
        return [this, captured = std::move(captured)](int) { ++calls; };
    }
};

// What a function captures, and whether it still does.
struct Captured {
    std::shared_ptr<int> take() { return std::move(held_); }
    bool isGone() const { return watch_.expired(); }

  private:
    std::shared_ptr<int> held_ = std::make_shared<int>(0);
    std::weak_ptr<int> watch_{held_};
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(aFunction, Fixture)

BOOST_AUTO_TEST_CASE(isCalledWhileItIsInstalled) {
    Captured captured;
    BOOST_TEST(replace(counter(captured.take())) == good);
    Callback::call(installed, 1);
    BOOST_TEST(calls == 1);
    BOOST_TEST(!captured.isGone());
}

BOOST_AUTO_TEST_CASE(isGoneOnceItIsRemovedOrReplaced) {
    Captured first;
    Captured second;
    replace(counter(first.take()));
    replace(counter(second.take()));
    BOOST_TEST(first.isGone());
    BOOST_TEST(!second.isGone());
    replace({});
    BOOST_TEST(installed == nullptr);
    BOOST_TEST(second.isGone());
}

BOOST_AUTO_TEST_CASE(staysWhereItsReplacementFails) {
    Captured first;
    Captured second;
    replace(counter(first.take()));
    const auto fail = [](void*) { return KAVRI_CORE_STATUS_OUT_OF_RESOURCES; };
    BOOST_TEST(slot.replace(counter(second.take()), fail) == KAVRI_CORE_STATUS_OUT_OF_RESOURCES);
    BOOST_TEST(!first.isGone());
    BOOST_TEST(second.isGone());
    BOOST_TEST(slot.replace({}, fail) == KAVRI_CORE_STATUS_OUT_OF_RESOURCES);
    Callback::call(installed, 1);
    BOOST_TEST(calls == 1);
}

BOOST_AUTO_TEST_CASE(staysUntilItReturnsWhereItRemovesItself) {
    Captured captured;
    bool wasGoneWithin = true;
    replace([&, held = captured.take()](int) {
        replace({});
        wasGoneWithin = captured.isGone();
    });
    Callback::call(installed, 1);
    BOOST_TEST(!wasGoneWithin);
    BOOST_TEST(captured.isGone());
}

BOOST_AUTO_TEST_CASE(mayOwnTheSlotThatItIsRemovedFrom) {
    struct Owner {
        Slot slot;
    };
    auto owner = std::make_shared<Owner>();
    const std::weak_ptr<Owner> watch(owner);
    const auto accept = [](void*) { return good; };
    Owner& kept = *owner;
    kept.slot.replace([owner = std::move(owner)](int) {}, accept);
    BOOST_TEST(!watch.expired());
    kept.slot.replace({}, accept);
    BOOST_TEST(watch.expired());
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(twoCallsAtTheSameTime, Fixture)

// Within the call that installs the first, the second is installed: the C function has taken
// them in either order.
BOOST_AUTO_TEST_CASE(areSettledByTheOneThatReturnsLast) {
    for (const bool innerIsLast : {false, true}) {
        Captured outer;
        Captured inner;
        int installs = 0;
        slot.replace(counter(outer.take()), [&](void* context) {
            if (++installs > 1) {
                return install(context);
            }
            if (innerIsLast) {
                install(context);
            }
            replace(counter(inner.take()));
            return innerIsLast ? good : install(context);
        });
        BOOST_TEST(installs == 2);  // once more, alone
        BOOST_TEST(!outer.isGone());
        BOOST_TEST(inner.isGone());
        Callback::call(installed, 1);
        replace({});
        BOOST_TEST(outer.isGone());
    }
    BOOST_TEST(calls == 2);
}

BOOST_AUTO_TEST_CASE(ofWhichOneFailsAreSettledByTheNextCall) {
    Captured outer;
    Captured inner;
    const auto fails = [&](void*) {
        replace(counter(inner.take()));
        return KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    };
    BOOST_TEST(slot.replace(counter(outer.take()), fails) == KAVRI_CORE_STATUS_OUT_OF_RESOURCES);
    BOOST_TEST(outer.isGone());
    BOOST_TEST(!inner.isGone());
    Callback::call(installed, 1);
    BOOST_TEST(calls == 1);
    replace({});
    BOOST_TEST(inner.isGone());
}

BOOST_AUTO_TEST_SUITE_END()
