"""Checks that each folder includes only what it may use.

The layers of the sources are folders, and this is what keeps them apart: the
broker never sees the core library, what both share never does input or output,
and the conformance module knows nothing of the project but its public headers.

Usage: allowed_includes.py SOURCE_FOLDER
Prints a line per include that is not allowed; exit status 1 if there is one.
"""

import pathlib
import re
import sys

# Folder: the folders whose headers it may include, its own apart. "kavri" are
# the public headers.
MAY_USE = {
    "include/kavri": set(),
    "src/interfaces": {"kavri"},
    "src/core": {"interfaces", "kavri"},
    "src/broker": {"interfaces", "test_service"},
    "src/test_service": set(),
    "src/probe": {"kavri"},
    "src/cli": {"interfaces", "core", "kavri", "test_service", "probe"},
}

# Single files that may use more than their folder.
MAY_ALSO_USE = {
    # The process around the service: a responder like any other.
    "src/test_service/main.cpp": {"interfaces", "kavri"},
}

# Headers of the system that mean input or output, for the folders that do none.
INPUT_OUTPUT = re.compile(
    r"^(unistd|fcntl|poll|sys/(socket|epoll|eventfd|timerfd|signalfd|uio|stat|ioctl|mman))\.h$"
    r"|^(iostream|fstream|cstdio|stdio\.h|thread)$"
)
WITHOUT_INPUT_OUTPUT = {"src/interfaces", "include/kavri"}

# The module is compiled against the public headers alone, whatever else there is.
MODULE = "tests/test_ipc_initiator.cpp"

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)
SOURCE_SUFFIXES = {".c", ".cpp", ".h"}


def includes(path):
    """Pairs of quote and header, in the order of the file."""
    return INCLUDE.findall(path.read_text(encoding="utf-8"))


def module_violations(root):
    path = root / MODULE
    for quote, header in includes(path) if path.exists() else []:
        if quote == '"':
            yield f'{MODULE} includes "{header}": it knows only the public headers'
        elif header.startswith("kavri/") and header != "kavri/ipc.h":
            yield f"{MODULE} includes <{header}>: <kavri/ipc.h> brings in all that it needs"


def file_violations(root, folder, path):
    name = path.relative_to(root).as_posix()
    own = pathlib.PurePosixPath(folder).name
    allowed = MAY_USE[folder] | MAY_ALSO_USE.get(name, set()) | {own}
    for quote, header in includes(path):
        parts = header.split("/")
        is_ours = quote == '"' or parts[0] in {pathlib.PurePosixPath(f).name for f in MAY_USE}
        if not is_ours:
            if folder in WITHOUT_INPUT_OUTPUT and INPUT_OUTPUT.match(header):
                yield f"{name} includes <{header}>: {folder} does no input or output"
        elif len(parts) == 1:
            if folder != "include/kavri":
                yield f'{name} includes "{header}": name the folder too, as "{own}/{header}"'
            elif not (path.parent / header).exists():
                yield f'{name} includes "{header}": there is no such header'
        elif parts[0] not in allowed:
            yield f'{name} includes "{header}": {folder} may not use {parts[0]}'
        elif not any((root / base / header).exists() for base in ("src", "include")):
            yield f'{name} includes "{header}": there is no such header'


def violations(root):
    for folder in sorted(path for path in root.glob("src/*") if path.is_dir()):
        name = folder.relative_to(root).as_posix()
        if name not in MAY_USE:
            yield f"{name} is no folder known here: say in {__file__} what it may use"
    for folder in MAY_USE:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix in SOURCE_SUFFIXES:
                yield from file_violations(root, folder, path)
    yield from module_violations(root)


def main(arguments):
    if len(arguments) != 2:
        sys.exit(__doc__)
    root = pathlib.Path(arguments[1])
    if not (root / "src").is_dir():
        sys.exit(f"{root} has no folder src")
    found = list(violations(root))
    print("\n".join(found) if found else "every include is allowed")
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main(sys.argv)
