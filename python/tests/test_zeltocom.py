"""Instruments and stations against simulated instruments: what the package
adds to the library's calls (types, readings, exceptions, context managers,
logging)."""

import logging
import math
import os
import pickle
import tempfile
import unittest
from fractions import Fraction

import zeltocom
from zeltocom import Instrument, Station, TriggerState, readings

from .simulator import SimulatedTest

try:
    import numpy
except ImportError:
    numpy = None

needs_numpy = unittest.skipIf(numpy is None, "needs numpy (Debian: python3-numpy)")


class InstrumentTest(SimulatedTest):
    ARGUMENTS = ("--port", "serial=ZA000001,fibers=3,baud=115200",
                 "--port", "serial=ZA000002,capturems=400",
                 "--port", "serial=ZA000003,fibers=1", "--blink", "1:5:50")

    def test_opens_answers_and_closes_as_a_context_manager(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            self.assertEqual((analyser.serial_number, analyser.baud_rate, analyser.device_type),
                             ("ZA000001", 115200, "ICT"))
            self.assertEqual(analyser.send("getserial"), "ZA000001")
            self.assertIn(self.paths[0], zeltocom.opened_ports())
        self.assertNotIn(self.paths[0], zeltocom.opened_ports())
        with self.raises("The port is not in use", "ZeltoCom_SetResponseTimeoutAuto"):
            analyser.set_automatic_timeouts()
        with Instrument.by_serial("ZA000002", baud=numpy.int32(0) if numpy else 0) as analyser:
            self.assertEqual(analyser.path, self.paths[1])

    def test_failures_raise_with_the_library_text_the_call_and_the_port(self) -> None:
        with self.raises("Device Path not available", "ZeltoCom_Open"):
            Instrument(self.paths[0] + "-missing")
        with self.raises("Unable to find device", "ZeltoCom_OpenSN", "ZA999999"):
            Instrument.by_serial("ZA999999")
        with self.raises("The serial number must be a text", "ZeltoCom_OpenSN"):
            Instrument.by_serial(None)  # type: ignore[arg-type]
        with Instrument(self.paths[0]) as analyser:
            with self.raises("Syntax error", "ZeltoCom_Send", self.paths[0]):
                analyser.send("NOSUCHCOMMAND")
            with self.raises("The command contains a NUL character", "ZeltoCom_Send"):
                analyser.send("GET\0SERIAL")
            # The port's own last error is stale here: opening it again
            # fails with a text the library keeps for no port.
            with self.raises("The port is already in use", "ZeltoCom_Open") as caught:
                Instrument(self.paths[0])
        self.assertEqual(str(caught.exception),
                         f"ZeltoCom_Open on {self.paths[0]}: The port is already in use")
        error = pickle.loads(pickle.dumps(caught.exception))
        self.assertEqual((str(error), error.result), (str(caught.exception),
                                                      caught.exception.result))

    def test_capture_reads_every_fiber_in_linear_intensity(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            readings = analyser.capture(range=2)
            self.assertEqual([r.fiber for r in readings], [1, 2, 3])
            self.assertNotEqual(readings[0], readings[1])
            third = readings[2]
            self.assertEqual(f"{third.x:.4f} {third.y:.4f}", analyser.send("GETxy03"))
            self.assertEqual(third.wavelength, int(analyser.send("GETWAVELENGTH03")))
            # Shown linear, as reported kept: 1200 reads 16411 on the logarithmic scale.
            self.assertEqual((third.intensity_raw, third.intensity_scale), (16411, "logarithmic"))
            self.assertAlmostEqual(third.intensity, 1200, delta=1)
            analyser.send("SETLIN")
            try:
                linear = analyser.capture()[2]
                self.assertEqual((linear.intensity_raw, linear.intensity_scale),
                                 (linear.intensity, "linear"))
                with self.raises("The range must be between 0 and 6",
                                 "ZeltoCom_IntensityToLinear"):
                    analyser.intensity_to_linear(100, range=7)
            finally:
                analyser.send("SETLOG")

    def test_captures_wait_the_library_wide_timeout_when_not_automatic(self) -> None:
        self.addCleanup(zeltocom.set_response_timeout, 2500)
        with Instrument(self.paths[1]) as analyser:  # its captures take 400 ms
            zeltocom.set_response_timeout(100.0)
            analyser.capture()  # waits as long as the instrument's settings say
            analyser.set_automatic_timeouts(False)
            with self.raises("Timeout", "ZeltoCom_Capture", self.paths[1]):
                analyser.capture()

    def test_user_calibration_writes_adjusts_and_resets(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            c = analyser.calibration
            reading = analyser.capture()[1]
            # The instrument's absolute unit is a thousandth of its linear intensity.
            absolute = float(analyser.send("GETABSINT02"))
            # get, set, a value to set, reset, the value after it, adjust, its
            # reference, the value that gives, within
            quantities = [
                (c.xy_offsets, c.set_xy_offsets, (0.012, -0.003), c.reset_xy_offsets, (0.0, 0.0),
                 c.adjust_xy_offsets, (reading.x + 0.01, reading.y - 0.02), (0.01, -0.02), 0.0015),
                (c.wavelength_offset, c.set_wavelength_offset, (-7,), c.reset_wavelength_offset, 0,
                 c.adjust_wavelength_offset, (reading.wavelength + 5,), (5,), 0),
                (c.intensity_gain, c.set_intensity_gain, (120,), c.reset_intensity_gain, 100,
                 c.adjust_intensity_gain, (round(1200 * absolute),), (120,), 1),
                (c.absolute_intensity_factor, c.set_absolute_intensity_factor, (2.5,),
                 c.reset_absolute_intensity_factor, 1.0, c.adjust_absolute_intensity_factor,
                 (3 * absolute,), (3.0,), 5e-5),
            ]
            for get, set_, value, reset, initial, adjust, reference, adjusted, delta in quantities:
                with self.subTest(get.__name__):
                    set_(2, *value, store=True)
                    got = get(2)
                    self.assertEqual(got if isinstance(got, tuple) else (got,), value)
                    set_(2, *value)  # in use until switched off
                    reset(2)
                    self.assertEqual(get(2), initial)
                    adjust(2, *reference)
                    got = get(2)
                    for have, want in zip(got if isinstance(got, tuple) else (got,), adjusted):
                        self.assertAlmostEqual(have, want, delta=delta)
                    reset(2)
            analyser.capture()
            for colour in "RGB":
                c.take_rgb(1, colour)
            c.adjust_rgb(1, red=(0.69, 0.30, 100), green=(0.17, 0.70, 300.0),
                         blue=(0.14, 0.05, Fraction(50)))
            c.reset_rgb(1)
            refused = [
                (lambda: c.intensity_gain(4), "Fiber should be a value between 1 and 3",
                 "ZeltoCom_UserCal_GetIntensityGain"),
                (lambda: c.reset_rgb(1.5), "The fiber must be a whole number",
                 "ZeltoCom_UserCal_ResetRGBAdj"),
                (lambda: c.set_intensity_gain(1, "120"), "The intensity gain must be a whole",
                 "ZeltoCom_UserCal_SetIntensityGain"),
                (lambda: c.adjust_intensity_gain(2, round(100000 * absolute)),
                 "The new intensity gain", "ZeltoCom_UserCal_AdjustIntensityGain"),
                (lambda: c.take_rgb(1, "RG"), "The colour must be one letter",
                 "ZeltoCom_UserCal_TakeRGBCurrentValues"),
                (lambda: c.adjust_rgb(1, (0, 0, 1), (0, math.nan, 1), (0, 0, 1)),
                 "The green y must be a finite number", "ZeltoCom_UserCal_AdjustRGB"),
            ]
            for attempt, text, name in refused:
                with self.subTest(name), self.raises(text, name):
                    attempt()

    def test_sequence_readouts_measure_a_blinking_light(self) -> None:
        with Instrument(self.paths[2]) as analyser:
            with self.raises("No sequence set up through this object",
                             "ZeltoCom_Sequence_ReadxyI", self.paths[2]):
                analyser.sequence_read_xyi(1)
            settings = analyser.sequence_find_settings(1, 4.0, 10.0)
            count = settings.sample_count
            analyser.sequence_setup(settings.capture_time, count, settings.time_between_captures)
            analyser.sequence_capture(1)
            intensities = analyser.sequence_read_intensity(1)
            readouts = {analyser.sequence_read_xyi: {"x", "y", "intensity"},
                        analyser.sequence_read_hsi: {"hue", "saturation", "intensity"},
                        analyser.sequence_read_rgbi: {"red", "green", "blue", "intensity"},
                        analyser.sequence_read_cct: {"cct", "cct_second"},
                        analyser.sequence_read_wavelength: {"wavelength"}}
            for read, columns in readouts.items():
                with self.subTest(read.__name__):
                    samples = read(1)
                    given = {name for name, value in vars(samples).items()
                             if value is not None and name != "fiber"}
                    self.assertEqual(given, columns)
                    self.assertTrue(all(len(getattr(samples, name)) == count for name in columns))
                    if "intensity" in columns:
                        self.assertEqual(samples.intensity, intensities)
            blinking = analyser.sequence_frequency(intensities)
            self.assertAlmostEqual(blinking.frequency, 5.0, delta=0.5)
            self.assertAlmostEqual(blinking.duty_cycle, 50.0, delta=10.0)
            self.assertGreater(len(analyser.sequence_pattern(intensities)), 2 * blinking.cycles)
            with self.raises(f"{count - 1} intensities given for a sequence of {count} samples",
                             "ZeltoCom_Sequence_GetFrequency", self.paths[2]):
                analyser.sequence_frequency(intensities[1:])

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
            self.assertEqual(analyser.sequence_frequency(intensities.astype(numpy.float64)),
                             analyser.sequence_frequency(list(intensities)))
            self.assertEqual(analyser.sequence_pattern(intensities),
                             analyser.sequence_pattern(intensities.tolist()))
            with self.raises("The intensity must be a whole number",
                             "ZeltoCom_Sequence_GetFrequency"):
                analyser.sequence_frequency(intensities / 2.0 + 0.25)

    def test_trigger_reports_arrive_as_readings_of_their_output_type(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            for output, fields in readings.TRIGGER_REPORTS.items():
                with self.subTest(output=output):
                    analyser.trigger_enable(output.lower(), pre_delay=10, post_delay=10)
                    analyser.trigger_listen()
                    self.assertIsNone(analyser.trigger_wait(timeout=0.05))
                    self.assertEqual(analyser.trigger_state(), TriggerState.LISTENING)
                    self.sim.fire(1)
                    report = analyser.trigger_wait(timeout=10)
                    self.assertEqual([{name for name, value in vars(reading).items()
                                       if value is not None} for reading in report],
                                     [{"fiber", *fields}] * (3 if fields else 0))
                    if "x" in fields:
                        self.assertEqual(f"{report[2].x:.4f} {report[2].y:.4f}",
                                         analyser.send("GETxy03"))
            analyser.trigger_listen()
            analyser.trigger_abort()
            self.assertIs(analyser.trigger_state(), TriggerState.ENDED)
            with self.raises("The trigger listener was ended before a report",
                             "ZeltoCom_ExternalTrigger_isFinished", self.paths[0]):
                analyser.trigger_wait()
            # Armed by an object closed since: the instrument says what it reports.
            analyser.trigger_enable("CCTI")
        with Instrument(self.paths[0]) as analyser:
            analyser.trigger_listen()
            self.sim.fire(1)
            self.assertIsNotNone(analyser.trigger_wait(timeout=10)[0].cct)
            analyser.trigger_disable()

    def test_trace_shows_each_command_and_answer(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            trace = os.path.join(folder, "station.trace")
            zeltocom.set_trace(trace)
            try:
                with Instrument(self.paths[0]) as analyser:
                    analyser.send("GETNFIB")
            finally:
                zeltocom.set_trace(None)
            with open(trace, encoding="ascii") as lines:
                self.assertIn(f"{self.paths[0]} ZA000001 < 3", lines.read())
            with self.raises("Unable to open trace file", "ZeltoCom_SetTrace"):
                zeltocom.set_trace(os.path.join(folder, "missing", "trace"))

    def test_logs_each_call_and_each_failure(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            with self.assertLogs("zeltocom", logging.DEBUG) as logged:
                analyser.send("GETSERIAL")
                with self.raises("Syntax error", "ZeltoCom_Send"):
                    analyser.send("NOSUCHCOMMAND")
        debug = [r.getMessage() for r in logged.records if r.levelno == logging.DEBUG]
        warning = [r.getMessage() for r in logged.records if r.levelno == logging.WARNING]
        self.assertEqual(len(debug), 2)
        self.assertTrue(debug[0].startswith(
            f"ZeltoCom_Send('{self.paths[0]}', 'GETSERIAL', <buffer>) = 1 in "), debug[0])
        self.assertEqual(warning, [f"ZeltoCom_Send on {self.paths[0]}: Syntax error"])


class StationTest(SimulatedTest):
    ARGUMENTS = ("--port", "serial=ZS0000,capturems=100", "--station", "3",
                 "--port", "serial=ZW000009,hw=Zelto 01-W2")

    def test_detects_and_captures_its_own_ports_beside_an_open_spectrometer(self) -> None:
        analysers, spectrometer = self.paths[:3], self.paths[3]
        self.assertEqual(zeltocom.detect(), self.paths)
        with Instrument(spectrometer) as alone, Station(analysers) as station:
            alone.spectrometer_capture(exposure=20)
            captured = station.capture(range=numpy.int64(0) if numpy else 0)
            self.assertEqual({path: [(r.fiber, r.intensity, r.intensity_scale) for r in fibers]
                              for path, fibers in captured.items()},
                             {path: [(1, 1200, "logarithmic"), (2, 1200, "logarithmic")]
                              for path in analysers})
        with Station(self.paths) as station:
            with self.raises("Device is a Spectrometer", "ZeltoCom_Capture", spectrometer):
                station.capture()
        self.assertEqual(zeltocom.opened_ports(), [])

    def test_opens_by_serial_numbers_in_their_order_and_names_a_failing_port(self) -> None:
        with Station.by_serials(["ZS000002", "ZW000009", "ZS000001"]) as station:
            self.assertEqual(station.paths, [self.paths[1], self.paths[3], self.paths[0]])
            self.assertEqual(station.send("GETSERIAL"), ["ZS000002", "ZW000009", "ZS000001"])
        with self.raises("Unable to find device", "ZeltoCom_OpenSN_Multi", "ZS99"):
            Station.by_serials(["ZS000001", "ZS99"])
        with self.raises("Device Path not available", "ZeltoCom_Open_Multi", "/dev/pts/missing"):
            Station(self.paths + ["/dev/pts/missing"])
        self.assertEqual(zeltocom.opened_ports(), [])


if __name__ == "__main__":
    unittest.main()
