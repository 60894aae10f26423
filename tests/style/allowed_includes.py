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
# the public headers. Rooms are listed by themselves where they are layers: those of the
# kit from the faults up to the whole run, those of the broker from its memory up to
# the loop.
MAY_USE = {
    "include/kavri": set(),
    "src/base": set(),
    "src/process": {"base"},
    "src/wire": {"base", "kavri"},
    "src/interfaces": {"kavri"},
    "src/core": {"base", "wire", "kavri"},
    "src/broker/log": set(),
    "src/broker/memory": {"base", "wire"},
    "src/broker/session": {"base", "wire", "kavri", "broker/memory"},
    "src/broker/routing": {"base", "wire", "kavri", "broker/memory", "broker/session"},
    "src/broker/management": {
        "base", "wire", "broker/memory", "broker/routing", "broker/session"},
    "src/broker/link": {
        "base", "wire", "kavri", "broker/memory", "broker/routing", "broker/session"},
    "src/broker/loop": {
        "base", "wire", "broker/link", "broker/log", "broker/management", "broker/memory",
        "broker/routing", "broker/session"},
    "src/broker": {
        "base", "wire", "broker/link", "broker/log", "broker/loop", "broker/routing",
        "broker/session"},
    "src/link_nats": {"base"},
    "src/test_service": {"base"},
    "src/conformance/agent": {"base", "conformance/faults", "kavri"},
    "src/conformance/faults": {"conformance/agent", "kavri"},
    "src/conformance/report": {"base", "process"},
    "src/conformance/cases": {"base", "process", "conformance/faults", "conformance/report"},
    "src/conformance/loading": {"base", "process"},
    "src/conformance/module": {
        "base", "process", "wire", "kavri", "conformance/cases", "conformance/loading",
        "conformance/report"},
    "src/conformance/run": {
        "base", "process", "conformance/cases", "conformance/faults", "conformance/module",
        "conformance/report"},
    "src/management": {"base", "process", "wire", "kavri"},
    "src/terminal": {"base", "process", "wire", "kavri"},
    "src/cli": {
        "base", "process", "management", "wire", "core", "conformance/cases", "conformance/faults",
        "conformance/run", "terminal", "kavri"},
}

# Single headers that a folder may include beside those of whole folders.
MAY_INCLUDE = {
    # What it implements.
    "src/link_nats": {"broker/link/bus.h"},
}

# Single files that may use more than their folder.
MAY_ALSO_USE = {
    # The kit's end of what the agent writes.
    "src/conformance/module/module_output.cpp": {"conformance/agent"},
    "src/conformance/module/module_run.cpp": {"conformance/agent"},
    # The process around the service: a responder like any other.
    "src/test_service/main.cpp": {"base", "wire", "kavri"},
    # The one place where the broker knows which service it hosts.
    "src/broker/hosted_test_service.h": {"test_service"},
}

# Headers of the system that mean input or output, for the folders that do none.
INPUT_OUTPUT = re.compile(
    r"^(unistd|fcntl|poll|sys/(socket|epoll|eventfd|timerfd|signalfd|uio|stat|ioctl|mman))\.h$"
    r"|^(iostream|fstream|cstdio|stdio\.h|thread)$"
)
WITHOUT_INPUT_OUTPUT = {
    "src/wire", "src/broker/management", "src/broker/routing", "src/broker/session",
    "include/kavri"}

# The module is compiled against the public headers alone, whatever else there is.
MODULE = "tests/test_ipc_initiator.cpp"

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)
SOURCE_SUFFIXES = {".c", ".cpp", ".h", ".hpp"}


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


def included_as(folder):
    """The beginning by which the folder's headers are included: "conformance/run"."""
    return folder.split("/", 1)[1]


def folder_of(header):
    """As a header's folder is included; of a folder that is not known, its first part."""
    known = (included_as(folder) for folder in MAY_USE)
    return max((each for each in known if header.startswith(each + "/")),
               key=len, default=header.split("/")[0])


def file_violations(root, folder, path):
    name = path.relative_to(root).as_posix()
    own = included_as(folder)
    allowed = MAY_USE[folder] | MAY_ALSO_USE.get(name, set()) | {own}
    for quote, header in includes(path):
        parts = header.split("/")
        is_ours = quote == '"' or folder_of(header) in map(included_as, MAY_USE)
        if not is_ours:
            if folder in WITHOUT_INPUT_OUTPUT and INPUT_OUTPUT.match(header):
                yield f"{name} includes <{header}>: {folder} does no input or output"
        elif len(parts) == 1:
            if folder != "include/kavri":
                yield f'{name} includes "{header}": name the folder too, as "{own}/{header}"'
            elif not (path.parent / header).exists():
                yield f'{name} includes "{header}": there is no such header'
        elif (folder_of(header) not in allowed
              and header not in MAY_INCLUDE.get(folder, set())):
            yield f'{name} includes "{header}": {folder} may not use {folder_of(header)}'
        elif not any((root / base / header).exists() for base in ("src", "include")):
            yield f'{name} includes "{header}": there is no such header'


def folder_with(name):
    """The innermost folder above that a source file is in; None where it is in none."""
    return max((folder for folder in MAY_USE if name.startswith(folder + "/")),
               key=len, default=None)


def violations(root):
    for path in sorted([*(root / "include").rglob("*"), *(root / "src").rglob("*")]):
        if path.suffix not in SOURCE_SUFFIXES:
            continue
        name = path.relative_to(root).as_posix()
        if (folder := folder_with(name)) is None:
            yield f"{name} is in no folder known here: say in {__file__} what it may use"
        else:
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
