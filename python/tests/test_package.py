"""The package against the library: check_header.py (the reference check's
part for this package) catches a package that disagrees with the header,
and which library the package loads, in a fresh interpreter each time (the
loader's own search path, LD_LIBRARY_PATH, is read only when a process
starts)."""

import os
import subprocess
import sys
import unittest
from pathlib import Path
from unittest import mock

PYTHON_DIR = Path(__file__).resolve().parents[1]
HEADER = PYTHON_DIR.parent / "include" / "zeltocom.h"
sys.path.insert(0, str(PYTHON_DIR))

import check_header  # noqa: E402
from zeltocom import _library  # noqa: E402


@unittest.skipUnless(HEADER.exists(), "needs the source tree's include/zeltocom.h")
class HeaderCheckTest(unittest.TestCase):
    def errors(self, header: str) -> list[str]:
        return (check_header.prototype_errors(check_header.declarations(header))
                + check_header.size_errors(header))

    def test_the_package_agrees_with_the_header(self) -> None:
        self.assertEqual(self.errors(HEADER.read_text()), [])

    def test_a_changed_header_is_caught(self) -> None:
        header = HEADER.read_text()
        cases = [
            ("#define ZELTOCOM_MAX_ANSWER_LENGTH 1048576",
             "#define ZELTOCOM_MAX_ANSWER_LENGTH 2048L",
             "ZELTOCOM_ANSWER_SIZE is 2049"),
            ("#define ZELTOCOM_DEVICE_PATH_SIZE 254",
             "#define ZELTOCOM_DEVICE_PATH_SIZE 254\n#define ZELTOCOM_BIN_NAME_SIZE (2 * 512)",
             "ZELTOCOM_BIN_NAME_SIZE is 1024 in zeltocom.h, missing"),
            ("int ZeltoCom_Capture(const char* devicePath, int pwm, int range, int pwmFrames)",
             "int ZeltoCom_Capture(const char* devicePath, int pwm, int range)",
             "ZeltoCom_Capture: 3 arguments in zeltocom.h, 4 in the package"),
            ("float* frequency, float* dutyCycle", "double* frequency, float* dutyCycle",
             "ZeltoCom_Sequence_GetFrequency: argument 3 is double* in zeltocom.h, "
             "LP_c_float in the package"),
            ("ZELTOCOM_API void ZeltoCom_GetLibraryVersion",
             "ZELTOCOM_API int ZeltoCom_GetLibraryVersion",
             "ZeltoCom_GetLibraryVersion: the result is int in zeltocom.h, None in the package"),
            ("ZeltoCom_ClearDetectionFilters(void)", "ZeltoCom_ClearDetectionFilter(void)",
             "ZeltoCom_ClearDetectionFilters: not declared in zeltocom.h"),
        ]
        for old, new, error in cases:
            with self.subTest(new=new):
                self.assertIn(old, header)
                self.assertIn(error, "\n".join(self.errors(header.replace(old, new))))

    def test_a_call_without_a_prototype_is_caught(self) -> None:
        unknown = {k: v for k, v in _library._PROTOTYPES.items() if k != "ZeltoCom_Close"}
        with mock.patch.object(_library, "_PROTOTYPES", unknown):
            self.assertEqual(self.errors(HEADER.read_text()),
                             ["ZeltoCom_Close: used by the package without a prototype"])


# Fails loudly should the package ask find_library, which may start a
# compiler; prints the version and the name the library was loaded by, or
# the package's error text.
PROBE = """
import ctypes.util
import zeltocom
ctypes.util.find_library = lambda name: exit("find_library was asked for " + name)
try:
    print(zeltocom.version(), zeltocom._library.lib()._name)
except zeltocom.ZeltoComError as error:
    print(error.text)
"""


@unittest.skipUnless(os.environ.get("ZELTOCOM_LIBRARY"), "needs ZELTOCOM_LIBRARY")
class LoadingTest(unittest.TestCase):
    def probe(self, library: str = "") -> str:
        """PROBE's output, with this build's library on the loader's path and
        ZELTOCOM_LIBRARY set to `library` (empty: none)."""
        build = str(Path(os.environ["ZELTOCOM_LIBRARY"]).resolve().parent)
        environment = {**os.environ, "LD_LIBRARY_PATH": build, "ZELTOCOM_LIBRARY": library}
        run = subprocess.run([sys.executable, "-c", PROBE], cwd=PYTHON_DIR, env=environment,
                             capture_output=True, text=True, timeout=60)
        self.assertEqual(run.returncode, 0, run.stderr)
        return run.stdout.strip()

    def test_loads_the_major_version_by_name_without_find_library(self) -> None:
        if any((PYTHON_DIR / "zeltocom").glob("libzeltocom.so*")):
            self.skipTest("a library lies beside the package")
        version, name = self.probe().split()
        self.assertEqual(name, f"libzeltocom.so.{_library.LIBRARY_MAJOR}")
        self.assertTrue(version.startswith(f"v{_library.LIBRARY_MAJOR}."), version)

    def test_zeltocom_library_wins_over_every_other_place(self) -> None:
        text = self.probe("/nonexistent/libzeltocom.so")
        self.assertIn("/nonexistent/libzeltocom.so (", text)
        self.assertNotIn(f"libzeltocom.so.{_library.LIBRARY_MAJOR} (", text)

