"""The package's calls for project and bin files, the numbers it takes,
and its docstrings."""

import functools
import importlib
import inspect
import math
import pkgutil
import sys
import tempfile
import unittest
from fractions import Fraction
from pathlib import Path
from unittest import mock

import zeltocom
from zeltocom import Project, ZeltoComError, readings
from zeltocom._library import real, whole

from .simulator import SimulatedTest

try:
    import numpy
except ImportError:
    numpy = None


class FilesTest(SimulatedTest):
    ARGUMENTS = ("--port", "serial=ZP000001", "--chain", "serial=ZP000002")

    def write(self, name: str, text: str) -> str:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = Path(folder.name) / name
        path.write_text(text, encoding="ascii")
        return str(path)

    def test_a_project_opens_addresses_and_closes_its_instruments(self) -> None:
        path = self.write("station.prj", f"""# a station
[DEVICE]
PORT={self.paths[0]}
ID=LEFT
SERIALNUMBER=ZP000001
BAUDRATE=0
[END]
[DEVICE]
PORT={self.paths[0]}
ID=BEHIND
SERIALNUMBER=ZP000002
ROLE=DAISY-CHAIN
[END]
""")
        with Project(path) as project:
            self.assertEqual(zeltocom.opened_ports(), [self.paths[0]])
            self.assertEqual(project.port("LEFT"), self.paths[0])
            self.assertEqual((project.knows("BEHIND"), project.knows("RIGHT")), (True, False))
            # Whichever instrument holds the line answers.
            self.assertEqual(project.send("BEHIND", "GETSERIAL"), "ZP000001")
            self.assertEqual(project.instrument("LEFT").send("GETSERIAL", serial="ZP000002"),
                             "ZP000002")
            with self.raises("ID not found", "ZeltoCom_SendByID", "RIGHT"):
                project.send("RIGHT", "GETSERIAL")
            with self.raises("ID not found", "ZeltoCom_GetPortByID", "RIGHT"):
                project.port("RIGHT")
        self.assertEqual(zeltocom.opened_ports(), [])
        with self.raises("Missing[END]", "ZeltoCom_OpenProject"):
            Project(self.write("broken.prj", "[DEVICE]\nPORT=/dev/null\n"))

    def test_bins_found_exactly_by_the_established_rule_and_listed(self) -> None:
        path = self.write("bins.vec", "Square=0.3,0.3;0.4,0.3;0.4,0.4;0.3,0.4\n"
                                      "0.5,0.5;0.6,0.55;0.55,0.65\n")
        # The established rule takes a point above the square for one in it.
        cases = [((0.35, 0.35), "Square", "Square"), ((0.4, 0.35), "Square", "Square"),
                 ((0.35, 0.45), None, "Square"),
                 ((0.56, 0.56), "Area 2", "Area 2"), ((0.1, 0.8), None, None)]
        for (x, y), exactly, by_rule in cases:
            with self.subTest(x=x, y=y):
                self.assertEqual((zeltocom.find_bin(path, x, y), zeltocom.bin_of(path, x, y)),
                                 (exactly, by_rule))
        self.assertEqual(zeltocom.check_bins(path),
                         ["Square: an edge parallel or nearly parallel to the y axis"])
        listed = zeltocom.bins(path)
        self.assertEqual([name for name, _ in listed], ["Square", "Area 2"])
        self.assertEqual(listed[0][1], [(0.3, 0.3), (0.4, 0.3), (0.4, 0.4), (0.3, 0.4)])
        wrong = self.write("bins.txt", "Square=0.3,0.3;0.4,0.3;0.4,0.4\n")
        for function, name in [(zeltocom.find_bin, "ZeltoCom_Binning_FindBin"),
                               (zeltocom.bin_of, "ZeltoCom_Binning_GetBinFromVECFile")]:
            with self.subTest(name):
                with self.raises("Wrong VEC file extension", name):
                    function(wrong, 0.3, 0.3)
                with self.raises("The x must be a finite number", name):
                    function(path, math.inf, 0.3)
        with self.raises("Wrong VEC file extension", "ZeltoCom_Binning_CheckVECFile"):
            zeltocom.check_bins(wrong)
        with self.raises("Unable to open file", "ZeltoCom_Binning_ListBins"):
            zeltocom.bins(Path(path).with_name("missing.vec"))


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
                with self.assertRaises(ZeltoComError) as caught:
                    check(value)
                self.assertIn(f"The count must be {text}", caught.exception.text)
                self.assertEqual(caught.exception.call, "f")

    def test_numpy_arrays_are_refused_clearly_without_numpy(self) -> None:
        with mock.patch.dict(sys.modules, {"numpy": None}):
            with self.assertRaises(ZeltoComError) as caught:
                readings.numpy_module("ZeltoCom_Sequence_ReadxyI")
        self.assertEqual(str(caught.exception), "ZeltoCom_Sequence_ReadxyI: as_numpy needs numpy "
                                                "(Debian: python3-numpy)")


class DocstringTest(unittest.TestCase):
    def test_every_public_name_has_a_docstring(self) -> None:
        modules = [zeltocom] + [importlib.import_module(f"zeltocom.{info.name}")
                                for info in pkgutil.iter_modules(zeltocom.__path__)
                                if not info.name.startswith("_")]
        missing = [module.__name__ for module in modules if not inspect.getdoc(module)]
        for module in modules:
            for name, value in vars(module).items():
                defined = inspect.isclass(value) or inspect.isfunction(value)
                if defined and not name.startswith("_") and value.__module__ == module.__name__:
                    missing += [f"{module.__name__}.{name}{member}"
                                for member in self.undocumented(value)]
        self.assertEqual(missing, [])

    @staticmethod
    def undocumented(value: object) -> list[str]:
        """"" for `value` itself and ".member" for each public member of a
        class without a docstring of its own (a dataclass's generated
        signature is none)."""
        own = value.__dict__.get("__doc__") if inspect.isclass(value) else value.__doc__
        missing = [] if own and not own.startswith(f"{value.__name__}(") else [""]
        for name, member in vars(value).items() if inspect.isclass(value) else []:
            function = getattr(member, "__func__", getattr(member, "fget", member))
            if not name.startswith("_") and callable(function) and not inspect.getdoc(function):
                missing.append(f".{name}")
        return missing


if __name__ == "__main__":
    unittest.main()
