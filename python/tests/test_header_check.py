"""check_header.py, the reference check's part for this package, catches a
package that disagrees with the header."""

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
