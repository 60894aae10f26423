"""The interpreter's state for the library's thread, kept from one callback to the next.

ctypes makes such a state for each call from a thread of C, and Python 3.11 takes a lock for that
which a child that is forked at this moment finds locked for ever. So there the state is made
once, at the first callback. Later versions unlock it in the child, and need none of this.
"""

import ctypes
import sys
from typing import Any

_api: Any = ctypes.pythonapi
_api.PyThreadState_Get.restype = ctypes.c_void_p
for _function in (_api.PyThreadState_Clear, _api.PyThreadState_Delete):
    _function.argtypes = [ctypes.c_void_p]
    _function.restype = None

_IS_NEEDED = sys.version_info < (3, 12)
_LOCKED = 0  # PyGILState_LOCKED


class ThreadState:
    """Of one thread of the library's. All methods are called with the interpreter's lock."""

    def __init__(self) -> None:
        self._kept: int | None = None

    def keep(self) -> None:
        """Within a callback: one reference more, so that its end does not end the state."""
        if _IS_NEEDED and self._kept is None:
            _api.PyGILState_Ensure()
            self._kept = _api.PyThreadState_Get()

    def drop(self) -> None:
        """Once the thread has ended, or within its last callback."""
        kept, self._kept = self._kept, None
        if kept is None:
            return
        if kept == _api.PyThreadState_Get():
            _api.PyGILState_Release(_LOCKED)
        else:
            _api.PyThreadState_Clear(kept)
            _api.PyThreadState_Delete(kept)
