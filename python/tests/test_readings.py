"""What the package makes of the instruments' answers and of numbers."""

import ctypes
import functools
import math
import sys
import unittest
from dataclasses import fields
from fractions import Fraction
from unittest import mock

from zeltocom import Reading, ZeltoComError, readings
from zeltocom._library import real, whole

try:
    import numpy
except ImportError:
    numpy = None


class ReadingsListTest(unittest.TestCase):
    def test_captures_and_trigger_reports_fill_every_field_of_a_reading(self) -> None:
        names = [name for _, names in readings.READOUTS for name in names]
        self.assertEqual(len(names), len(set(names)))
        reported = {name for names in readings.TRIGGER_REPORTS.values() for name in names}
        kept = {"fiber", "intensity_raw", "intensity_scale"}
        read = {f.name for f in fields(Reading) if f.name not in kept}
        self.assertEqual(set(names) | reported, read)
        self.assertEqual(readings.READ_COMMANDS[0] % 7, readings.READOUTS[0][0] + "07")
        # The list's lines skip comments and blanks.
        self.assertEqual(readings._readouts("# a comment\n\nGETxyI x y intensity\n  GETCCT\tcct\n"),
                         (("GETxyI", ("x", "y", "intensity")), ("GETCCT", ("cct",))))

    def test_answers_become_numbers_of_each_fields_type(self) -> None:
        good = {"GETxyI%02d": "0.3288 0.4232 16411", "GETWAVELENGTH%02d": "549",
                "GETCCT%02d": "5614 0.0012", "GETRGBI%02d": " 77 128  51 16411"}
        self.assertEqual(Reading.parse(2, good),
                         Reading(fiber=2, red=77, green=128, blue=51, intensity=16411, x=0.3288,
                                 y=0.4232, cct=5614, wavelength=549))
        for command, answer in [("GETxyI%02d", "0.3288 0.4232"), ("GETCCT%02d", ""),
                                ("GETRGBI%02d", "77 x 51"), ("GETWAVELENGTH%02d", "549.5")]:
            with self.subTest(answer=answer), self.assertRaisesRegex(ZeltoComError, command % 2):
                Reading.parse(2, {**good, command: answer})

    def test_trigger_reports_become_readings_of_their_output_type(self) -> None:
        cases = [
            ("XYI", "0.3288 0.4232 16411\r\n0.1 0.2 3",
             [Reading(1, x=0.3288, y=0.4232, intensity=16411),
              Reading(2, x=0.1, y=0.2, intensity=3)]),
            ("hsi", "12.50 0.75 900", [Reading(1, hue=12.5, saturation=0.75, intensity=900)]),
            (" RGBI ", "77 128 51 900\n", [Reading(1, red=77, green=128, blue=51, intensity=900)]),
            ("CCTI", "5614 16411", [Reading(1, cct=5614, intensity=16411)]),
            ("ABSINT", "1.641100E+01", [Reading(1, absolute_intensity=16.411)]),
            ("WSI", "549 0.50 900", [Reading(1, wavelength=549, saturation=0.5, intensity=900)]),
            ("NONE", "OK", []),
        ]
        for output, report, expected in cases:
            with self.subTest(output=output):
                self.assertEqual(readings.parse_report(output, report), expected)
        for output, report in [("XYI", "0.3 0.4"), ("CCTI", "5614.5 3"), ("WHAT", "1")]:
            with self.subTest(report=report), self.assertRaises(ZeltoComError):
                readings.parse_report(output, report)

    def test_c_floats_read_as_their_shortest_decimal(self) -> None:
        for text in ["0.3288", "12345.68", "1e-07", "0", "-2.5"]:
            with self.subTest(text=text):
                self.assertEqual(readings.float32(ctypes.c_float(float(text)).value), float(text))

    def test_the_old_spelling_still_reads_with_a_warning(self) -> None:
        answers = {"GETNFIB": "1", "GETxyI01": "0.1 0.2 3", "GETWAVELENGTH01": "4",
                   "GETCCT01": "5", "GETRGBI01": "6 7 8 3"}
        ask = lambda ports, command: [answers[command]]  # noqa: E731
        with self.assertWarns(DeprecationWarning):
            found = readings.read_fibres(["/dev/pts/9"], ask)
        self.assertEqual(found, readings.read_fibers(["/dev/pts/9"], ask))
        self.assertEqual(found["/dev/pts/9"][0].cct, 5)


class NumbersTest(unittest.TestCase):
    def test_numbers_of_every_kind_and_clear_refusals(self) -> None:
        accepted = [3, 3.0, Fraction(6, 2)]
        if numpy is not None:
            accepted += [numpy.int64(3), numpy.uint8(3), numpy.float32(3.0)]
        for value in accepted:
            with self.subTest(value=value):
                self.assertEqual((whole(value, "count"), real(value, "count")), (3, 3.0))
        self.assertEqual([whole(value, "count") for value in (-2**31, 2**31 - 1)],
                         [-2**31, 2**31 - 1])
        whole_count = functools.partial(whole, what="count", low=0, call="f")
        real_count = functools.partial(real, what="count", call="f")
        refused = [(whole_count, 2.5, "a whole number, not 2.5"),
                   (whole_count, "3", "a whole number"), (whole_count, math.nan, "a whole number"),
                   (whole_count, -1, "between 0 and"),
                   (whole_count, 2**31, "between 0 and 2147483647, not 2147483648"),
                   (real_count, "0.5", "a finite number"), (real_count, -math.inf, "a finite"),
                   (real_count, 10**400, "a finite number"), (real_count, 1j, "a finite number")]
        for check, value, text in refused:
            with self.subTest(value=value):
                with self.assertRaisesRegex(ZeltoComError, f"^f: The count must be {text}"):
                    check(value)
        with mock.patch.dict(sys.modules, {"numpy": None}):
            with self.assertRaises(ZeltoComError) as caught:
                readings.numpy_module("ZeltoCom_Sequence_ReadxyI")
        self.assertEqual(str(caught.exception), "ZeltoCom_Sequence_ReadxyI: as_numpy needs numpy "
                                                "(Debian: python3-numpy)")
