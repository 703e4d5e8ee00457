"""The package's calls against simulated instruments: opening by serial
number, time-outs, user calibration, sequence readouts, project and bin
files, stations, logging, the numbers it takes, and its docstrings."""

import contextlib
import functools
import importlib
import inspect
import logging
import math
import os
import pkgutil
import sys
import tempfile
import unittest
from fractions import Fraction
from typing import Iterator, Optional
from unittest import mock

import zeltocom
from zeltocom import Instrument, Project, Samples, Station, ZeltoComError, readings
from zeltocom._library import real, whole

from .simulator import Simulator

try:
    import numpy
except ImportError:
    numpy = None

needs_numpy = unittest.skipIf(numpy is None, "needs numpy (Debian: python3-numpy)")


class SimulatedTest(unittest.TestCase):
    ARGUMENTS: tuple[str, ...] = ()

    @classmethod
    def setUpClass(cls) -> None:
        cls.sim = Simulator(*cls.ARGUMENTS)
        cls.paths = cls.sim.paths

    @classmethod
    def tearDownClass(cls) -> None:
        cls.sim.stop()

    @contextlib.contextmanager
    def raises(self, text: str, call: str, port: Optional[str] = None) -> Iterator[None]:
        """Expects a ZeltoComError from `call` whose text starts with `text`."""
        with self.assertRaises(ZeltoComError) as caught:
            yield
        error = caught.exception
        self.assertTrue(error.text.startswith(text), error.text)
        self.assertEqual(error.call, call)
        if port is not None:
            self.assertEqual(error.port, port)


class AnalyserTest(SimulatedTest):
    ARGUMENTS = ("--port", "serial=ZA000001,fibers=3", "--port", "serial=ZA000002,capturems=400",
                 "--port", "serial=ZA000003,fibers=1", "--blink", "1:5:50")

    def test_opens_by_serial_number(self) -> None:
        with Instrument.by_serial("ZA000002", baud=numpy.int32(0) if numpy else 0) as analyser:
            self.assertEqual((analyser.path, analyser.serial_number), (self.paths[1], "ZA000002"))
            with self.raises("The port is already open!", "ZeltoCom_OpenSN", "ZA000002"):
                Instrument.by_serial("ZA000002")
        with self.raises("Unable to find device", "ZeltoCom_OpenSN", "ZA999999"):
            Instrument.by_serial("ZA999999")
        with self.raises("The serial number must be a text", "ZeltoCom_OpenSN"):
            Instrument.by_serial(None)  # type: ignore[arg-type]

    def test_response_timeouts_library_wide_and_per_port(self) -> None:
        self.addCleanup(zeltocom.set_response_timeout, 2500)
        with Instrument(self.paths[1]) as analyser:  # its captures take 400 ms
            zeltocom.set_response_timeout(100)
            analyser.capture()  # waits as long as the instrument's settings say
            analyser.set_automatic_timeouts(False)
            with self.raises("Timeout", "ZeltoCom_Capture", self.paths[1]):
                analyser.capture()
            zeltocom.set_response_timeout(2500.0)
            analyser.capture()
            analyser.set_automatic_timeouts(True)
            with self.raises("The response time-out must not be negative",
                             "ZeltoCom_SetResponseTimeout"):
                zeltocom.set_response_timeout(-1)
        with self.raises("The port is not in use", "ZeltoCom_SetResponseTimeoutAuto"):
            analyser.set_automatic_timeouts()

    def test_user_calibration_reads_writes_and_resets(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            calibration = analyser.calibration
            # get, set, reset, a value to set, the value after a reset
            quantities = [
                (calibration.xy_offsets, calibration.set_xy_offsets, calibration.reset_xy_offsets,
                 (0.012, -0.003), (0.0, 0.0)),
                (calibration.wavelength_offset, calibration.set_wavelength_offset,
                 calibration.reset_wavelength_offset, (-7,), 0),
                (calibration.intensity_gain, calibration.set_intensity_gain,
                 calibration.reset_intensity_gain, (120,), 100),
                (calibration.absolute_intensity_factor, calibration.set_absolute_intensity_factor,
                 calibration.reset_absolute_intensity_factor, (2.5,), 1.0),
            ]
            for get, set_, reset, value, initial in quantities:
                with self.subTest(get.__name__):
                    set_(2, *value, store=True)
                    got = get(2)
                    self.assertEqual(got if isinstance(got, tuple) else (got,), value)
                    set_(2, *value)  # in use until switched off
                    reset(2)
                    self.assertEqual(get(2), initial)
            with self.raises("Fiber should be a value between 1 and 3",
                             "ZeltoCom_UserCal_GetIntensityGain", self.paths[0]):
                calibration.intensity_gain(4)
            with self.raises("The fiber must be a whole number", "ZeltoCom_UserCal_ResetRGBAdj"):
                calibration.reset_rgb(1.5)
            with self.raises("The intensity gain must be a whole number",
                             "ZeltoCom_UserCal_SetIntensityGain"):
                calibration.set_intensity_gain(1, "120")  # type: ignore[arg-type]

    def test_user_calibration_adjusts_onto_references(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            calibration = analyser.calibration
            reading = analyser.capture()[1]
            # The instrument's absolute unit is a thousandth of its linear intensity.
            absolute = float(analyser.send("GETABSINT02"))
            calibration.adjust_xy_offsets(2, reading.x + 0.01, reading.y - 0.02)
            x, y = calibration.xy_offsets(2)
            self.assertAlmostEqual(x, 0.01, delta=0.0015)
            self.assertAlmostEqual(y, -0.02, delta=0.0015)
            calibration.adjust_wavelength_offset(2, reading.wavelength + 5)
            self.assertEqual(calibration.wavelength_offset(2), 5)
            calibration.adjust_intensity_gain(2, round(1200 * absolute))
            self.assertAlmostEqual(calibration.intensity_gain(2), 120, delta=1)
            calibration.adjust_absolute_intensity_factor(2, 3 * absolute)
            self.assertAlmostEqual(calibration.absolute_intensity_factor(2), 3.0, places=4)
            with self.raises("The new intensity gain", "ZeltoCom_UserCal_AdjustIntensityGain"):
                calibration.adjust_intensity_gain(2, round(100000 * absolute))
            for reset in (calibration.reset_xy_offsets, calibration.reset_wavelength_offset,
                          calibration.reset_intensity_gain,
                          calibration.reset_absolute_intensity_factor):
                reset(2)

    def test_rgb_adjustment_from_three_reference_lights(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            calibration = analyser.calibration
            calibration.reset_rgb(1)
            analyser.capture()
            for colour in "RGB":
                calibration.take_rgb(1, colour)
            calibration.adjust_rgb(1, red=(0.69, 0.30, 100), green=(0.17, 0.70, 300.0),
                                   blue=(0.14, 0.05, Fraction(50)))
            calibration.reset_rgb(1)
            with self.raises("The colour must be one letter",
                             "ZeltoCom_UserCal_TakeRGBCurrentValues"):
                calibration.take_rgb(1, "RG")
            with self.raises("The green y must be a finite number", "ZeltoCom_UserCal_AdjustRGB"):
                calibration.adjust_rgb(1, (0, 0, 1), (0, math.nan, 1), (0, 0, 1))

    def test_every_sequence_readout_gives_a_value_per_sample(self) -> None:
        with Instrument(self.paths[2]) as analyser:
            with self.raises("No sequence set up through this object",
                             "ZeltoCom_Sequence_ReadxyI", self.paths[2]):
                analyser.sequence_read_xyi(1)
            analyser.sequence_setup(capture_time=10, sample_count=40)
            analyser.sequence_capture(1)
            intensities = analyser.sequence_read_intensity(1)
            self.assertEqual(len(intensities), 40)
            self.assertGreater(max(intensities), min(intensities))  # it blinks
            readouts = {analyser.sequence_read_xyi: {"x", "y", "intensity"},
                        analyser.sequence_read_hsi: {"hue", "saturation", "intensity"},
                        analyser.sequence_read_rgbi: {"red", "green", "blue", "intensity"},
                        analyser.sequence_read_cct: {"cct", "cct_second"},
                        analyser.sequence_read_wavelength: {"wavelength"}}
            for read, columns in readouts.items():
                with self.subTest(read.__name__):
                    samples = read(1)
                    self.assertIsInstance(samples, Samples)
                    given = {name for name, value in vars(samples).items()
                             if value is not None and name != "fiber"}
                    self.assertEqual(given, columns)
                    self.assertTrue(all(len(getattr(samples, name)) == 40 for name in columns))
                    if "intensity" in columns:
                        self.assertEqual(samples.intensity, intensities)
            with self.raises("Fiber out of range", "ZeltoCom_Sequence_ReadHSI", self.paths[2]):
                analyser.sequence_read_hsi(2)

    @needs_numpy
    def test_sequences_as_numpy_arrays(self) -> None:
        with Instrument(self.paths[2]) as analyser:
            settings = analyser.sequence_find_settings(numpy.int64(1), numpy.float32(4), 10)
            analyser.sequence_setup(numpy.uint16(settings.capture_time),
                                    numpy.int64(settings.sample_count),
                                    float(settings.time_between_captures))
            analyser.sequence_capture(numpy.int8(1))
            intensities = analyser.sequence_read_intensity(1, as_numpy=True)
            self.assertEqual((intensities.dtype, intensities.shape),
                             (numpy.int32, (settings.sample_count,)))
            rgbi = analyser.sequence_read_rgbi(1, as_numpy=True)
            self.assertEqual((rgbi.red.dtype, rgbi.intensity.dtype), (numpy.uint8, numpy.int32))
            self.assertEqual(analyser.sequence_read_xyi(1, as_numpy=True).x.dtype, numpy.float32)
            numpy.testing.assert_array_equal(rgbi.intensity, intensities)
            # Float arrays hold the same numbers: a blinking found alike.
            blinking = analyser.sequence_frequency(intensities.astype(numpy.float64))
            self.assertEqual(blinking, analyser.sequence_frequency(list(intensities)))
            self.assertAlmostEqual(blinking.frequency, 5.0, delta=0.5)
            self.assertEqual(analyser.sequence_pattern(intensities),
                             analyser.sequence_pattern(intensities.tolist()))
            halves = intensities / 2.0 + 0.25
            with self.raises("The intensity must be a whole number",
                             "ZeltoCom_Sequence_GetFrequency"):
                analyser.sequence_frequency(halves)

    def test_logs_each_call_and_each_failure(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            with self.assertLogs("zeltocom", logging.DEBUG) as logged:
                analyser.send("GETSERIAL")
                with self.assertRaises(ZeltoComError):
                    analyser.send("NOSUCHCOMMAND")
        debug = [r.getMessage() for r in logged.records if r.levelno == logging.DEBUG]
        warning = [r.getMessage() for r in logged.records if r.levelno == logging.WARNING]
        self.assertEqual(len(debug), 2)
        self.assertTrue(debug[0].startswith(
            f"ZeltoCom_Send('{self.paths[0]}', 'GETSERIAL', <buffer>) = 1 in "), debug[0])
        self.assertEqual(warning, [f"ZeltoCom_Send on {self.paths[0]}: Syntax error"])


class FilesTest(SimulatedTest):
    ARGUMENTS = ("--port", "serial=ZP000001", "--chain", "serial=ZP000002")

    def write(self, name: str, text: str) -> str:
        folder = tempfile.mkdtemp()
        self.addCleanup(lambda: [os.remove(os.path.join(folder, f)) for f in os.listdir(folder)]
                        and os.rmdir(folder))
        path = os.path.join(folder, name)
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
        return path

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
            self.assertTrue(project.knows("BEHIND"))
            self.assertFalse(project.knows("RIGHT"))
            # Whichever instrument holds the line answers.
            self.assertEqual(project.send("BEHIND", "GETSERIAL"), "ZP000001")
            chained = project.instrument("LEFT").send("GETSERIAL", serial="ZP000002")
            self.assertEqual(chained, "ZP000002")
            with self.raises("ID not found", "ZeltoCom_SendByID", "RIGHT"):
                project.send("RIGHT", "GETSERIAL")
            with self.raises("ID not found", "ZeltoCom_GetPortByID", "RIGHT"):
                project.port("RIGHT")
        self.assertEqual(zeltocom.opened_ports(), [])
        broken = self.write("broken.prj", "[DEVICE]\nPORT=/dev/null\n")
        with self.raises("Missing[END]", "ZeltoCom_OpenProject"):
            Project(broken)

    def test_bins_found_exactly_and_by_the_established_rule(self) -> None:
        path = self.write("bins.vec", "Square=0.3,0.3;0.4,0.3;0.4,0.4;0.3,0.4\n"
                                      "0.5,0.5;0.6,0.55;0.55,0.65\n")
        # The established rule takes a point above the square for one in it.
        cases = [((0.35, 0.35), "Square", "Square"), ((0.4, 0.35), "Square", "Square"),
                 ((0.35, 0.45), None, "Square"),
                 ((0.56, 0.56), "Area 2", "Area 2"), ((0.1, 0.8), None, None)]
        for (x, y), exactly, by_rule in cases:
            with self.subTest(x=x, y=y):
                self.assertEqual(zeltocom.find_bin(path, x, y), exactly)
                self.assertEqual(zeltocom.bin_of(path, x, y), by_rule)
        self.assertEqual(zeltocom.check_bins(path),
                         ["Square: an edge parallel or nearly parallel to the y axis"])
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


class StationTest(SimulatedTest):
    ARGUMENTS = ("--port", "serial=ZS0000,capturems=100", "--station", "3",
                 "--port", "serial=ZW000009,hw=Zelto 01-W2")

    def test_captures_its_own_ports_beside_an_open_spectrometer(self) -> None:
        analysers, spectrometer = self.paths[:3], self.paths[3]
        with Instrument(spectrometer), Station(analysers) as station:
            readings = station.capture(range=numpy.int64(0) if numpy else 0)
            self.assertEqual(list(readings), analysers)
        with Station(self.paths) as station:
            with self.raises("Device is a Spectrometer", "ZeltoCom_Capture", spectrometer):
                station.capture()

    def test_opens_by_serial_numbers_in_their_order(self) -> None:
        with Station.by_serials(["ZS000002", "ZW000009", "ZS000001"]) as station:
            self.assertEqual(station.paths, [self.paths[1], self.paths[3], self.paths[0]])
            self.assertEqual(station.send("GETSERIAL"), ["ZS000002", "ZW000009", "ZS000001"])
        with self.raises("Unable to find device", "ZeltoCom_OpenSN_Multi", "ZS99"):
            Station.by_serials(["ZS000001", "ZS99"])
        self.assertEqual(zeltocom.opened_ports(), [])


class NumbersTest(unittest.TestCase):
    def test_numbers_of_every_kind_and_clear_refusals(self) -> None:
        accepted = [3, 3.0, Fraction(6, 2)]
        if numpy is not None:
            accepted += [numpy.int64(3), numpy.uint8(3), numpy.float32(3.0)]
        for value in accepted:
            with self.subTest(value=value):
                self.assertEqual((whole(value, "count"), real(value, "count")), (3, 3.0))
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
        missing = []
        modules = [zeltocom] + [importlib.import_module(f"zeltocom.{info.name}")
                                for info in pkgutil.iter_modules(zeltocom.__path__)
                                if not info.name.startswith("_")]
        for module in modules:
            if not inspect.getdoc(module):
                missing.append(module.__name__)
            for name, value in vars(module).items():
                if name.startswith("_") or getattr(value, "__module__", None) != module.__name__:
                    continue
                if not (inspect.isclass(value) or inspect.isfunction(value)):
                    continue
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
        if inspect.isclass(value):
            for name, member in vars(value).items():
                if name.startswith("_"):
                    continue
                function = getattr(member, "__func__", getattr(member, "fget", member))
                if callable(function) and not inspect.getdoc(function):
                    missing.append(f".{name}")
        return missing


if __name__ == "__main__":
    unittest.main()
