"""The C library as the package sees it is the one of the headers, and is found as documented."""

import ctypes
import os
import pathlib
import re
import shutil
import subprocess
import tomllib

import kavri
import pytest
from conftest import run_python
from kavri import _library

SOURCES = pathlib.Path(__file__).parents[2]
CORE_HEADER = (SOURCES / "include/kavri/core.h").read_text()
IPC_HEADER = (SOURCES / "include/kavri/ipc.h").read_text()

STRUCTURES = {
    "kavri_core_ipc_options": _library.Options,
    "kavri_core_ipc_connection_change": _library.ConnectionChange,
    "kavri_core_ipc_command": _library.Command,
    "kavri_core_ipc_request": _library.Request,
}


def layout_of(structure):
    members = [(name, getattr(structure, name)) for name, _ in structure._fields_]
    return {name: (member.offset, member.size) for name, member in members}


def layouts_by_the_compiler(folder):
    """Of each structure its size and its members, as a C program sees them."""
    lines = []
    for name, structure in STRUCTURES.items():
        lines.append(f'printf("{name} - %zu 0\\n", sizeof({name}));')
        for member, _ in structure._fields_:
            lines.append(
                f'printf("{name} {member} %zu %zu\\n", offsetof({name}, {member}),'
                f" sizeof((({name}*)0)->{member}));"
            )
    source = folder / "layout.c"
    source.write_text(
        "#include <kavri/ipc.h>\n#include <stdio.h>\nint main(void) {" + "\n".join(lines) + "}"
    )
    program = folder / "layout"
    compiler = os.environ.get("CC", "cc")
    subprocess.run([compiler, "-I", SOURCES / "include", source, "-o", program], check=True)
    printed = subprocess.run([program], check=True, capture_output=True, text=True).stdout
    return [line.split() for line in printed.splitlines()]


def test_structures_are_those_of_the_headers(tmp_path):
    layouts = {name: layout_of(structure) for name, structure in STRUCTURES.items()}
    compiled = {name: {} for name in STRUCTURES}
    for name, member, offset, size in layouts_by_the_compiler(tmp_path):
        if member == "-":
            # What is missing at the end would show here.
            assert ctypes.sizeof(STRUCTURES[name]) == int(offset), name
        else:
            compiled[name][member] = (int(offset), int(size))
    assert layouts == compiled


def test_statuses_are_those_of_the_header():
    found = re.findall(r"^ +KAVRI_CORE_STATUS_(\w+) = (\d+)", CORE_HEADER, re.MULTILINE)
    assert {name: int(number) for name, number in found} == {
        status.name: status.value for status in kavri.Status
    }


def test_connection_events_are_those_of_the_header():
    found = re.findall(r"^ +KAVRI_CORE_IPC_CONNECTION_(\w+) = (\d+)", IPC_HEADER, re.MULTILINE)
    assert {name: int(number) for name, number in found} == {
        event.name: event.value for event in kavri.ConnectionEvent
    }


def test_every_status_has_a_text_and_an_exception():
    library = _library.library()
    for status in kavri.Status:
        if status != kavri.Status.NO_ERROR:
            with pytest.raises(kavri.Error, match=library.status_text(status)) as raised:
                library.check(status, "it")
            assert raised.value.status is status


def test_a_status_of_a_later_library_is_an_error():
    with pytest.raises(kavri.Error, match="unknown status") as raised:
        _library.library().check(99, "it")
    assert raised.value.status == 99
    assert type(raised.value) is kavri.Error


def test_the_library_is_found_by_folder_and_by_file():
    folder = pathlib.Path(os.environ["KAVRI_LIBRARY"])
    for place in (folder, folder / "libkavri-core-test.so"):
        run_python("from kavri import _library; _library.library()",
                   env={**os.environ, "KAVRI_LIBRARY": str(place)})


def test_the_loader_finds_the_library_where_no_place_is_named():
    environment = dict(os.environ)
    environment["LD_LIBRARY_PATH"] = environment.pop("KAVRI_LIBRARY")
    run_python("from kavri import _library; _library.library()", env=environment)


def test_a_missing_library_is_named_when_it_is_needed(tmp_path):
    printed = run_python(
        "import kavri, kavri.aio\n"
        "try: kavri.Initiator()\n"
        "except kavri.LibraryMissing as error: print(error)",
        env={**os.environ, "KAVRI_LIBRARY": str(tmp_path)},
    )
    assert str(tmp_path / "libkavri-core-test.so") in printed
    assert "KAVRI_LIBRARY" in printed


def test_a_library_that_lacks_functions_is_named():
    printed = run_python(
        "import kavri\n"
        "try: kavri.Initiator()\n"
        "except kavri.LibraryMissing as error: print(error)",
        env={**os.environ, "KAVRI_LIBRARY": "libc.so.6"},
    )
    assert "kavri_core_init" in printed


def test_a_library_that_is_too_old_is_named(tmp_path):
    source = tmp_path / "old.c"
    functions = [f"int kavri_core_{name}(void) {{ return 7; }}" for name in _library._FUNCTIONS]
    source.write_text("\n".join([*functions, "int kavri_core_status_text(void) { return 0; }"]))
    library = tmp_path / _library.FILE_NAME
    compiler = os.environ.get("CC", "cc")
    subprocess.run([compiler, "-shared", "-fPIC", source, "-o", library], check=True)
    printed = run_python(
        "import kavri\n"
        "try: kavri.Initiator()\n"
        "except kavri.LibraryMissing as error: print(error)",
        env={**os.environ, "KAVRI_LIBRARY": str(tmp_path)},
    )
    assert "it is older than this package" in printed


def test_the_version_is_that_of_the_project():
    with open(SOURCES / "python/pyproject.toml", "rb") as file:
        version = tomllib.load(file)["project"]["version"]
    assert f"project(kavri VERSION {version} " in (SOURCES / "CMakeLists.txt").read_text()


def test_building_the_package_takes_all_of_it(tmp_path):
    copy = shutil.copytree(SOURCES / "python", tmp_path / "python")
    built = tmp_path / "built"
    command = ["-c", "import setuptools; setuptools.setup()", "-q", "build_py", "-d", built]
    subprocess.run(["/usr/bin/python3", *command], cwd=copy, check=True)
    names = {path.name for path in (SOURCES / "python/kavri").iterdir() if path.is_file()}
    assert {path.name for path in (built / "kavri").iterdir()} == names
    assert "py.typed" in names


def test_the_package_is_typed():
    subprocess.run(
        ["/usr/bin/mypy", "--strict", "--cache-dir", os.devnull, SOURCES / "python/kavri"],
        check=True,
    )


def test_errors_can_be_copied_between_processes():
    import pickle

    error = pickle.loads(pickle.dumps(kavri.NoResponder("nobody", kavri.Status.IPC_NO_RESPONDER)))
    assert isinstance(error, kavri.NotDelivered)
    assert (str(error), error.status) == ("nobody", kavri.Status.IPC_NO_RESPONDER)
