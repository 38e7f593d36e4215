"""The package beside the headers, and as pip installs it."""
import ctypes
import os
import re
import shutil
import subprocess
import sys
import unittest

import support
from support import PACKAGE, PROJECT

import xfer
from xfer import _native

HEADERS = PROJECT / "modules" / "xfer" / "include" / "xfer"
RECORDS = {"xfer_download_options": _native.DownloadOptions, "xfer_event": _native.EventRecord,
           "xfer_status": _native.StatusRecord, "xfer_request_options": _native.RequestOptions,
           "xfer_response": _native.ResponseRecord}


def header(name):
    return (HEADERS / name).read_text(encoding="utf-8")


def enumerators(prefix, *headers):
    return {name: int(value) for text in map(header, headers)
            for name, value in re.findall(rf"\b{prefix}(\w+) = (\d+)", text)}


def interpreter_with(*modules):
    """An interpreter that can build the package: this one, or the system's."""
    for python in (sys.executable, "/usr/bin/python3"):
        if subprocess.run([python, "-c", f"import {', '.join(modules)}"], capture_output=True).returncode == 0:
            return python
    raise AssertionError("no interpreter has pip, setuptools and wheel: "
                         "install python3-pip, python3-setuptools and python3-wheel")


class Package(support.Served):
    def test_records_are_where_the_compiler_puts_them(self):
        # record_layout.cpp is compiled with each build: what stands there is so.
        text = (PROJECT / "tests" / "units" / "record_layout.cpp").read_text(encoding="utf-8")
        fields = re.findall(r"^FIELD\((\w+), (\w+), (\d+)\);", text, re.MULTILINE)
        sizes = re.findall(r"^static_assert\(sizeof\((\w+)\) == (\d+)\);", text, re.MULTILINE)
        self.assertEqual({name for name, _ in sizes}, set(RECORDS))
        for name, record in RECORDS.items():
            with self.subTest(name):
                self.assertEqual([(field, getattr(record, field).offset) for field, _ in record._fields_],
                                 [(field, int(offset)) for of, field, offset in fields if of == name])
                self.assertIn((name, str(ctypes.sizeof(record))), sizes)

    def test_fields_have_the_types_of_the_headers(self):
        types = {"uint32_t": ctypes.c_uint32, "uint64_t": ctypes.c_uint64, "int32_t": ctypes.c_int32,
                 "const char*": ctypes.c_char_p, "xfer_event_callback": _native.EventCallback,
                 "xfer_body_callback": _native.BodyCallback}
        text = header("xfer_download.h") + header("xfer_request.h")
        for name, record in RECORDS.items():
            body = re.search(rf"typedef struct {name} {{(.*?)}} {name};", text, re.DOTALL)[1]
            declared = re.findall(r"^  ([\w ]+?\*?) (\w+);", body, re.MULTILINE)
            with self.subTest(name):
                self.assertEqual([(field, kind) for field, kind in record._fields_],
                                 [(field, types.get(kind, ctypes.c_void_p)) for kind, field in declared])

    def test_numbers_are_those_of_the_headers(self):
        for prefix, known in (("XFER_STATE_", xfer.State), ("XFER_EVENT_", xfer.EventKind), ("XFER_NOTE_", xfer.Note)):
            self.assertEqual(enumerators(prefix, "xfer_download.h"), {entry.name: entry.value for entry in known})
        self.assertEqual(enumerators("XFER_VERIFY_", "xfer.h"),
                         {"AS_SET": 0, "ON": _native.VERIFY_ON, "OFF": _native.VERIFY_OFF})
        self.assertEqual(enumerators("XFER_PLAN_", "xfer_download.h")["ADAPTIVE"], _native.PLAN_ADAPTIVE)
        self.assertEqual(enumerators("XFER_NOT_", "xfer_download.h"), {"ENDED": _native.NOT_ENDED})

    def test_functions_have_the_arguments_of_the_headers(self):
        text = re.sub(r"\s+", " ", header("xfer.h") + header("xfer_download.h") + header("xfer_request.h"))
        for name, result, arguments in _native._FUNCTIONS:
            with self.subTest(name):
                declared = re.search(rf"XFER_API ([\w ]+\*?) ?{name}\((.*?)\);", text)
                self.assertEqual(0 if declared[2] == "void" else declared[2].count(",") + 1, len(arguments))
                returned = declared[1].strip()
                self.assertEqual(returned == "void", result is None)
                self.assertEqual(returned.endswith("*"), result in (ctypes.c_char_p, ctypes.c_void_p))
                for argument, kind in zip(declared[2].split(","), arguments):
                    self.assertEqual("*" in argument, kind is ctypes.c_void_p or hasattr(kind, "contents"), argument)
                    for whole in ("uint32_t", "int32_t", "uint64_t"):
                        if re.search(rf"^ ?{whole} \w+$", argument):
                            self.assertIs(kind, getattr(ctypes, f"c_{whole[:-2]}"))

    def test_the_version_is_that_of_the_headers_and_of_the_library(self):
        numbers = re.findall(r"^#define XFER_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)$", header("version.h"), re.MULTILINE)
        self.assertEqual(xfer.__version__, ".".join(numbers))
        self.assertEqual(xfer.version(), xfer.__version__)

    def test_pip_installs_it_without_a_network(self):
        folder = self.folder()
        python = interpreter_with("setuptools", "wheel", "pip")
        shutil.copytree(PACKAGE, folder / "source",
                        ignore=shutil.ignore_patterns("tests", "__pycache__", "*.egg-info", "build"))
        subprocess.run([python, "-m", "pip", "install", "--quiet", "--no-index", "--no-build-isolation", "--no-deps",
                        "--disable-pip-version-check", "--root-user-action", "ignore", "--target", str(folder / "there"),
                        str(folder / "source")], check=True, timeout=120)
        said = subprocess.run([python, "-c", "import xfer; print(xfer.__file__, xfer.version())"], cwd=folder, check=True,
                              capture_output=True, text=True, timeout=support.LONG,
                              env={**os.environ, "PYTHONPATH": str(folder / "there")}).stdout
        self.assertEqual(said.split(), [str(folder / "there" / "xfer" / "__init__.py"), xfer.__version__])
        self.assertTrue((folder / "there" / "xfer" / "py.typed").exists())
        self.assertTrue((folder / "there" / f"xfer-{xfer.__version__}.dist-info").exists())


if __name__ == "__main__":
    unittest.main()
