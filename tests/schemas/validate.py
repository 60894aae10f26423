"""Checks the files of a report against their schemas, and that each says of itself what its
parts say. Prints what is wrong, a line each; the exit status is the number of those lines, at
most 100.

Usage: validate.py REPORT.json REPORT.xml
Needs the packages python3-jsonschema and libxml2-utils.
"""

import json
import pathlib
import subprocess
import sys
import xml.etree.ElementTree as xml

import jsonschema

HERE = pathlib.Path(__file__).resolve().parent
JSON_SCHEMA = HERE.parent.parent / "docs" / "conformance-report.schema.json"
JUNIT_SCHEMA = HERE / "junit.xsd"


def strict(schema):
    """The schema without what it leaves open for later versions: a key must be described."""
    for definition in schema["definitions"].values():
        if "required" in definition:
            definition["additionalProperties"] = False
            assert set(definition["required"]) == set(definition["properties"]), definition
    return schema


def jsonComplaints(path):
    schema = strict(json.loads(JSON_SCHEMA.read_text()))
    jsonschema.Draft7Validator.check_schema(schema)
    report = json.loads(pathlib.Path(path).read_text())
    for error in jsonschema.Draft7Validator(schema).iter_errors(report):
        place = "/".join(str(part) for part in error.absolute_path)
        yield f"{path}: {place}: {error.message[:300]}"


def junitComplaints(path):
    command = ["xmllint", "--noout", "--nonet", "--schema", str(JUNIT_SCHEMA), path]
    checked = subprocess.run(command, capture_output=True, text=True, check=False)
    if checked.returncode != 0:
        yield from checked.stderr.splitlines() or [f"{path}: xmllint failed"]
        return
    root = xml.parse(path).getroot()
    for node in [root, *root.iter("testsuite")]:
        for kind, outcome in (("tests", "testcase"), ("failures", "failure"),
                              ("errors", "error"), ("skipped", "skipped")):
            there = len(list(node.iter(outcome)))
            if int(node.get(kind)) != there:
                yield f"{path}: {node.get('name')}: {kind} is {node.get(kind)}, there are {there}"


if __name__ == "__main__":
    COMPLAINTS = [*jsonComplaints(sys.argv[1]), *junitComplaints(sys.argv[2])]
    print(*COMPLAINTS, sep="\n")
    sys.exit(min(len(COMPLAINTS), 100))
