// Descriptors and pipes close exactly what they own, once.
#define BOOST_TEST_MODULE descriptor

#include "base/descriptor.h"

#include <fcntl.h>

#include <boost/test/unit_test.hpp>
#include <type_traits>

#include "base/pipe.h"

using kavri::base::Descriptor;
using kavri::base::Pipe;

namespace {

bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

int newNumber() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

static_assert(!std::is_copy_constructible_v<Descriptor> && !std::is_copy_assignable_v<Descriptor>);

BOOST_AUTO_TEST_CASE(anOwnerClosesAtItsEnd) {
    const int number = newNumber();
    {
        const Descriptor owner(number);
        BOOST_TEST(owner.isOpen());
        BOOST_TEST(owner.get() == number);
        BOOST_TEST(isOpen(number));
    }
    BOOST_TEST(!isOpen(number));
}

BOOST_AUTO_TEST_CASE(withoutADescriptorNothingIsClosed) {
    const Descriptor none;
    const Descriptor failed(-1);
    BOOST_TEST(!none.isOpen());
    BOOST_TEST(!failed.isOpen());
}

BOOST_AUTO_TEST_CASE(aMoveLeavesOneOwner) {
    const int number = newNumber();
    Descriptor first(number);
    {
        const Descriptor second(std::move(first));
        BOOST_TEST(second.get() == number);
        BOOST_TEST(!first.isOpen());
    }
    BOOST_TEST(!isOpen(number));
}

BOOST_AUTO_TEST_CASE(anAssignmentClosesWhatWasOwnedBefore) {
    const int before = newNumber();
    const int after = newNumber();
    Descriptor owner(before);
    owner = Descriptor(after);
    BOOST_TEST(!isOpen(before));
    BOOST_TEST(owner.get() == after);
    BOOST_TEST(isOpen(after));
}

BOOST_AUTO_TEST_CASE(whatIsReleasedStaysOpen) {
    const int number = newNumber();
    BOOST_TEST(Descriptor(number).release() == number);
    BOOST_TEST(isOpen(number));
    ::close(number);
}

BOOST_AUTO_TEST_CASE(closingLeavesTheErrorThatWasThere) {
    Descriptor notOpen(newNumber());
    ::close(notOpen.get());
    errno = ENOENT;
    notOpen.close();  // fails
    BOOST_TEST(errno == ENOENT);
    BOOST_TEST(!notOpen.isOpen());
}

BOOST_AUTO_TEST_CASE(whatIsWrittenIntoAPipeCanBeReadFromIt) {
    const Pipe pipe = Pipe::make();
    BOOST_TEST(::write(pipe.writeEnd.get(), "x", 1) == 1);
    char byte = 0;
    BOOST_TEST(::read(pipe.readEnd.get(), &byte, 1) == 1);
    BOOST_TEST(byte == 'x');
}

BOOST_AUTO_TEST_CASE(aPipeIsClosedOnExecutionAndTakesFurtherFlags) {
    const Pipe pipe = Pipe::make(O_NONBLOCK);
    for (const Descriptor* end : {&pipe.readEnd, &pipe.writeEnd}) {
        BOOST_TEST((::fcntl(end->get(), F_GETFD) & FD_CLOEXEC) != 0);
        BOOST_TEST((::fcntl(end->get(), F_GETFL) & O_NONBLOCK) != 0);
    }
}
