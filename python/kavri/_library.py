"""The C library as ctypes sees it: where it is, its structures, its functions, its strings.

The structures are those of ``kavri/ipc.h``, member by member. ctypes releases the interpreter's
lock during each call, so a call that waits keeps no other thread from running.
"""

from __future__ import annotations

import ctypes
import functools
import os
from ctypes import POINTER, c_char_p, c_int, c_size_t, c_uint, c_uint64, c_void_p
from typing import Any

from ._text import decoded
from .errors import LibraryMissing, Status, error_for

FILE_NAME = "libkavri-core-test.so"
# The folder with the library, or the library itself; otherwise the loader looks for it.
VARIABLE = "KAVRI_LIBRARY"


class ConnectionChange(ctypes.Structure):
    """``kavri_core_ipc_connection_change``"""

    _fields_ = [
        ("sizeBytes", c_size_t),
        ("event", c_int),
        ("status", c_int),
        ("reason", c_char_p),
        ("disconnectedMs", c_uint64),
    ]


class Command(ctypes.Structure):
    """``kavri_core_ipc_command``"""

    _fields_ = [
        ("targetCategory", c_char_p),
        ("targetIdentifier", c_char_p),
        ("uuid", c_char_p),
        ("payload", c_char_p),
    ]


class Request(ctypes.Structure):
    """``kavri_core_ipc_request``"""

    _fields_ = [("token", c_uint64), ("connection", c_uint64)]


# A pointer to the library's pointer to a string, which is the callback's to free.
_String = POINTER(c_void_p)

ConnectionCallback = ctypes.CFUNCTYPE(None, POINTER(ConnectionChange), c_void_p)
OutcomeCallback = ctypes.CFUNCTYPE(None, c_char_p, c_int, c_void_p)
ResponseCallback = ctypes.CFUNCTYPE(None, _String, _String, _String, _String, c_void_p)
EventCallback = ctypes.CFUNCTYPE(None, _String, _String, _String, c_void_p)
RequestCallback = ctypes.CFUNCTYPE(None, Request, _String, _String, _String, _String, c_void_p)


class Options(ctypes.Structure):
    """``kavri_core_ipc_options``"""

    _fields_ = [
        ("sizeBytes", c_size_t),
        ("brokerAddress", c_char_p),
        ("connectTimeoutMs", c_uint),
        ("sendTimeoutMs", c_uint),
        ("gatherWrites", c_uint),
        ("connectionCallback", ConnectionCallback),
        ("connectionContext", c_void_p),
        ("outcomeCallback", OutcomeCallback),
        ("outcomeContext", c_void_p),
    ]


# Of each function the types of its arguments; all of them return a status.
_FUNCTIONS: dict[str, list[Any]] = {
    "init": [],
    "deinit": [],
    "logging_init": [c_char_p, POINTER(c_void_p)],
    "logging_deinit": [c_void_p],
    "ipc_initiator_init": [c_void_p, POINTER(Options), POINTER(c_void_p)],
    "ipc_deinit": [c_void_p],
    "ipc_initiator_command_send": [c_void_p, c_char_p, c_char_p, c_char_p, c_char_p],
    "ipc_initiator_command_send_batch": [c_void_p, POINTER(Command), c_size_t, POINTER(c_size_t)],
    "ipc_initiator_response_receive_callback": [c_void_p, ResponseCallback, c_void_p],
    "ipc_initiator_event_subscribe": [c_void_p, c_char_p],
    "ipc_initiator_event_unsubscribe": [c_void_p, c_char_p],
    "ipc_initiator_event_receive_callback": [c_void_p, EventCallback, c_void_p],
    "ipc_responder_init": [c_void_p, POINTER(Options), c_char_p, POINTER(c_void_p)],
    "ipc_responder_deinit": [c_void_p],
    "ipc_responder_request_receive_callback": [c_void_p, RequestCallback, c_void_p],
    "ipc_responder_response_send": [c_void_p, Request, c_char_p, c_char_p, c_char_p, c_char_p],
    "ipc_responder_request_end": [c_void_p, Request],
    "ipc_responder_event_publish": [c_void_p, c_char_p, c_char_p, c_char_p],
}

# Releasing the interpreter's lock would take longer than freeing a string.
_free: Any = ctypes.PyDLL(None).free
_free.argtypes = [c_void_p]
_free.restype = None


class Library:
    """The functions of the loaded library, by their names without ``kavri_core_``."""

    def __init__(self, loaded: ctypes.CDLL) -> None:
        for name, arguments in _FUNCTIONS.items():
            function = getattr(loaded, "kavri_core_" + name)
            function.argtypes = arguments
            function.restype = c_int
            setattr(self, name, function)
        self._status_text: Any = loaded.kavri_core_status_text
        self._status_text.argtypes = [c_int]
        self._status_text.restype = c_char_p
        self._expect_outcomes()

    def _expect_outcomes(self) -> None:
        """With a library that does not know the outcome callback, a request that fails would
        wait for ever. One that knows it refuses a context without it before it looks at the
        address, which is none: there is no connection in either case."""
        options = Options(sizeBytes=ctypes.sizeof(Options), brokerAddress=b"", outcomeContext=1)
        self.init()
        status = self.ipc_initiator_init(None, options, c_void_p())
        self.deinit()
        if status != Status.INVALID_ARGUMENT:
            raise AttributeError("it is older than this package")

    def __getattr__(self, name: str) -> Any:
        raise AttributeError(name)

    def status_text(self, status: int) -> str:
        return decoded(self._status_text(status))

    def check(self, status: int, what: str) -> None:
        """Raises the exception for a status that is not NO_ERROR."""
        if status != Status.NO_ERROR:
            raise error_for(status, self.status_text(status), what)


def _path() -> str:
    chosen = os.environ.get(VARIABLE)
    if not chosen:
        return FILE_NAME
    return os.path.join(chosen, FILE_NAME) if os.path.isdir(chosen) else chosen


@functools.cache
def library() -> Library:
    """Loads the library at the first call, and returns it."""
    path = _path()
    try:
        return Library(ctypes.CDLL(path))
    except (OSError, AttributeError) as reason:
        raise LibraryMissing(
            f"cannot use the library {path}: {reason}; the environment variable {VARIABLE} "
            "can name its folder",
            Status.NOT_INITIALISED,
        ) from reason


def take(*strings: Any) -> list[bytes | None]:
    """Copies the strings that were handed to a callback, and frees each of them."""
    addresses = [string[0] for string in strings]
    try:
        return [None if each is None else ctypes.string_at(each) for each in addresses]
    finally:
        for each in addresses:
            _free(each)
