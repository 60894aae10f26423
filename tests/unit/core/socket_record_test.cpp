// What a forked child closes: the socket on record, and no other file that has its number.
#define BOOST_TEST_MODULE socketRecord

#include "core/connection/socket_record.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <boost/test/unit_test.hpp>

#include "base/descriptor.h"

using kavri::base::Descriptor;
using kavri::core::SocketRecord;

namespace {

bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

int newSocket() {
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

}  // namespace

BOOST_AUTO_TEST_CASE(theSocketOnRecordIsClosedOnce) {
    SocketRecord record;
    const int socket = newSocket();
    record.opened(socket);
    record.closeCopy();
    BOOST_TEST(!isOpen(socket));
    const Descriptor next(newSocket());  // gets the same number
    BOOST_TEST(next.get() == socket);
    record.closeCopy();
    BOOST_TEST(isOpen(next.get()));
}

BOOST_AUTO_TEST_CASE(withoutASocketNothingIsClosed) {
    SocketRecord record;
    record.closeCopy();
    BOOST_TEST(isOpen(STDIN_FILENO));
}

BOOST_AUTO_TEST_CASE(aSocketThatIsAboutToBeClosedIsOffTheRecord) {
    SocketRecord record;
    const Descriptor socket(newSocket());
    record.opened(socket.get());
    record.closing(socket.get());
    record.closeCopy();
    BOOST_TEST(isOpen(socket.get()));
}

BOOST_AUTO_TEST_CASE(theNewerOfTwoSocketsIsOnRecord) {
    SocketRecord record;
    const Descriptor older(newSocket());
    const int newer = newSocket();
    record.opened(older.get());
    record.opened(newer);
    record.closing(older.get());
    record.closeCopy();
    BOOST_TEST(isOpen(older.get()));
    BOOST_TEST(!isOpen(newer));
}

BOOST_AUTO_TEST_CASE(anotherFileOfTheSameNumberStaysOpen) {
    SocketRecord record;
    const int number = newSocket();
    record.opened(number);
    // As in a child whose descriptors were copied before its memory was.
    for (const int other : {newSocket(), ::open("/dev/null", O_RDONLY | O_CLOEXEC)}) {
        BOOST_REQUIRE(::dup3(other, number, O_CLOEXEC) == number);
        record.closeCopy();
        BOOST_TEST(isOpen(number));
        ::close(other);
        record.opened(number);
    }
    ::close(number);
}
