"""Texts between Python and the C library, which takes and gives NUL-terminated bytes.

A ``str`` is UTF-8. Bytes that are not UTF-8 become lone surrogates and come out again as the
same bytes (``surrogateescape``), so a text that is passed on is never changed.
"""

from __future__ import annotations

Text = str | bytes


def encoded(text: Text, name: str) -> bytes:
    """The bytes of a text; `name` is what an exception calls it."""
    if isinstance(text, str):
        text = text.encode("utf-8", "surrogateescape")
    elif not isinstance(text, bytes):
        raise TypeError(f"{name} must be str or bytes, not {type(text).__name__}")
    if b"\0" in text:
        raise ValueError(f"{name} must not contain NUL")
    return text


def decoded(text: bytes) -> str:
    return text.decode("utf-8", "surrogateescape")
