"""Instruments, stations and files against simulated instruments: what the
package adds to the library's calls."""

import logging
import math
import pickle
import tempfile
import unittest
from fractions import Fraction
from pathlib import Path

import zeltocom
from zeltocom import Instrument, Project, Station, TriggerState, readings

from .simulator import SimulatedTest

try:
    import numpy
except ImportError:
    numpy = None


class InstrumentTest(SimulatedTest):
    # Analysers, a station's three analysers, a spectrometer, and a port
    # with a chained instrument.
    ARGUMENTS = ("--port", "serial=ZA000001,fibers=3,baud=115200",
                 "--port", "serial=ZA000002,capturems=400",
                 "--port", "serial=ZA000003,fibers=1", "--blink", "1:5:50",
                 "--port", "serial=ZS0000,capturems=100", "--station", "3",
                 "--port", "serial=ZW000009,hw=Zelto 01-W2",
                 "--port", "serial=ZP000001", "--chain", "serial=ZP000002")

    def write(self, name: str, text: str) -> str:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = Path(folder.name) / name
        path.write_text(text, encoding="ascii")
        return str(path)

    def test_opens_answers_and_closes_as_a_context_manager(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            self.assertEqual((analyser.serial_number, analyser.baud_rate, analyser.device_type,
                              analyser.send("getserial")), ("ZA000001", 115200, "ICT", "ZA000001"))
            self.assertEqual(zeltocom.opened_ports(), [self.paths[0]])
        self.assertEqual(zeltocom.opened_ports(), [])
        with Instrument.by_serial("ZA000002", baud=numpy.int32(0) if numpy else 0) as analyser:
            self.assertEqual(analyser.path, self.paths[1])

    def test_failures_raise_with_the_text_the_call_and_the_port(self) -> None:
        with self.raises("ZeltoCom_OpenSN on ZA999999: Unable to find device"):
            Instrument.by_serial("ZA999999")
        with self.raises("ZeltoCom_OpenSN: The serial number must be a text"):
            Instrument.by_serial(None)  # type: ignore[arg-type]
        with Instrument(self.paths[0]) as analyser:
            with self.raises("ZeltoCom_Send: The command contains a NUL character"):
                analyser.send("GET\0SERIAL")
            # The port's own last error is stale here: opening it again
            # fails with a text the library keeps for no port.
            with self.raises(f"ZeltoCom_Open on {self.paths[0]}: The port is already in use"
                             ) as caught:
                Instrument(self.paths[0])
        error = pickle.loads(pickle.dumps(caught.exception))
        self.assertEqual((error.text, error.call, error.port, error.result),
                         ("The port is already in use", "ZeltoCom_Open", self.paths[0],
                          caught.exception.result))

    def test_capture_reads_every_fiber_in_linear_intensity(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            readings = analyser.capture(range=2)
            self.assertEqual([r.fiber for r in readings], [1, 2, 3])
            third = readings[2]
            self.assertEqual(f"{third.x:.4f} {third.y:.4f}", analyser.send("GETxy03"))
            # Shown linear, as reported kept: 1200 reads 16411 on the logarithmic scale.
            self.assertEqual((third.intensity_raw, third.intensity_scale), (16411, "logarithmic"))
            self.assertAlmostEqual(third.intensity, 1200, delta=1)
            analyser.send("SETLIN")
            try:
                linear = analyser.capture()[2]
                self.assertEqual((linear.intensity_raw, linear.intensity_scale),
                                 (linear.intensity, "linear"))
                with self.raises("ZeltoCom_IntensityToLinear: The range must be between 0 and 6"):
                    analyser.intensity_to_linear(100, range=7)
            finally:
                analyser.send("SETLOG")

    def test_captures_wait_the_library_wide_timeout_when_not_automatic(self) -> None:
        self.addCleanup(zeltocom.set_response_timeout, 2500)
        with Instrument(self.paths[1]) as analyser:  # its captures take 400 ms
            zeltocom.set_response_timeout(100.0)
            analyser.capture()  # waits as long as the instrument's settings say
            analyser.set_automatic_timeouts(False)
            with self.raises(f"ZeltoCom_Capture on {self.paths[1]}: Timeout"):
                analyser.capture()

    def test_user_calibration_writes_adjusts_and_resets(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            c = analyser.calibration
            # get, set, reset, a value to set, the value after a reset
            quantities = [
                (c.xy_offsets, c.set_xy_offsets, c.reset_xy_offsets, (0.012, -0.003), (0.0, 0.0)),
                (c.wavelength_offset, c.set_wavelength_offset, c.reset_wavelength_offset, (-7,), 0),
                (c.intensity_gain, c.set_intensity_gain, c.reset_intensity_gain, (120,), 100),
                (c.absolute_intensity_factor, c.set_absolute_intensity_factor,
                 c.reset_absolute_intensity_factor, (2.5,), 1.0),
            ]
            for get, set_, reset, value, initial in quantities:
                with self.subTest(get.__name__):
                    set_(2, *value, store=True)
                    got = get(2)
                    self.assertEqual(got if isinstance(got, tuple) else (got,), value)
                    reset(2)
                    self.assertEqual(get(2), initial)
            c.adjust_wavelength_offset(2, analyser.capture()[1].wavelength + 5)
            self.assertEqual(c.wavelength_offset(2), 5)
            c.reset_wavelength_offset(2)
            for colour in "RGB":
                c.take_rgb(1, colour)
            c.adjust_rgb(1, red=(0.69, 0.30, 100), green=(0.17, 0.70, 300.0),
                         blue=(0.14, 0.05, Fraction(50)))
            c.reset_rgb(1)
            refused = [
                (lambda: c.reset_rgb(1.5), "ResetRGBAdj: The fiber must be a whole number"),
                (lambda: c.set_intensity_gain(1, "120"),
                 "SetIntensityGain: The intensity gain must be a whole number"),
                (lambda: c.take_rgb(1, "RG"),
                 f"TakeRGBCurrentValues on {self.paths[0]}: The colour must be one letter"),
                (lambda: c.adjust_rgb(1, (0, 0, 1), (0, math.nan, 1), (0, 0, 1)),
                 "AdjustRGB: The green y must be a finite number"),
            ]
            for attempt, shown in refused:
                with self.subTest(shown), self.raises("ZeltoCom_UserCal_" + shown):
                    attempt()

    def test_sequence_readouts_measure_a_blinking_light(self) -> None:
        with Instrument(self.paths[2]) as analyser:
            with self.raises(f"ZeltoCom_Sequence_ReadxyI on {self.paths[2]}: No sequence set up"):
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
                    samples = vars(read(1))
                    self.assertEqual({name for name in samples if samples[name] is not None},
                                     {"fiber", *columns})
                    self.assertTrue(all(len(samples[name]) == count for name in columns))
                    self.assertIn(samples["intensity"], (None, intensities))
            blinking = analyser.sequence_frequency(intensities)
            self.assertAlmostEqual(blinking.frequency, 5.0, delta=0.5)
            self.assertGreater(len(analyser.sequence_pattern(intensities)), 2 * blinking.cycles)
            with self.raises(f"ZeltoCom_Sequence_GetFrequency on {self.paths[2]}: {count - 1} "
                             f"intensities given for a sequence of {count} samples"):
                analyser.sequence_frequency(intensities[1:])

    @unittest.skipIf(numpy is None, "needs numpy (Debian: python3-numpy)")
    def test_sequences_as_numpy_arrays(self) -> None:
        with Instrument(self.paths[2]) as analyser:
            settings = analyser.sequence_find_settings(numpy.int64(1), numpy.float32(4), 10)
            analyser.sequence_setup(numpy.uint16(settings.capture_time),
                                    numpy.int64(settings.sample_count))
            analyser.sequence_capture(numpy.int8(1))
            intensities = analyser.sequence_read_intensity(1, as_numpy=True)
            rgbi = analyser.sequence_read_rgbi(1, as_numpy=True)
            self.assertEqual((intensities.dtype, intensities.shape, rgbi.red.dtype,
                              analyser.sequence_read_xyi(1, as_numpy=True).x.dtype),
                             (numpy.int32, (settings.sample_count,), numpy.uint8, numpy.float32))
            # Float arrays hold the same numbers: a blinking found alike.
            self.assertEqual(analyser.sequence_frequency(intensities.astype(numpy.float64)),
                             analyser.sequence_frequency(list(intensities)))
            with self.raises("ZeltoCom_Sequence_GetFrequency: The intensity must be a whole"):
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
            analyser.trigger_listen()
            analyser.trigger_abort()
            self.assertIs(analyser.trigger_state(), TriggerState.ENDED)
            with self.raises(f"ZeltoCom_ExternalTrigger_isFinished on {self.paths[0]}: "
                             "The trigger listener was ended before a report"):
                analyser.trigger_wait()
            # Armed by an object closed since: the instrument says what it reports.
            analyser.trigger_enable("CCTI")
        with Instrument(self.paths[0]) as analyser:
            analyser.trigger_listen()
            self.sim.fire(1)
            self.assertIsNotNone(analyser.trigger_wait(timeout=10)[0].cct)
            analyser.trigger_disable()

    def test_logs_and_traces_each_call_and_each_failure(self) -> None:
        trace = Path(self.write("trace", ""))
        with Instrument(self.paths[0]) as analyser:
            zeltocom.set_trace(trace)
            with self.assertLogs("zeltocom", logging.DEBUG) as logged:
                analyser.send("GETSERIAL")
                with self.raises(f"ZeltoCom_Send on {self.paths[0]}: Syntax error"):
                    analyser.send("NOSUCHCOMMAND")
            zeltocom.set_trace(None)
        self.assertIn(f"{self.paths[0]} ZA000001 < ZA000001", trace.read_text())
        debug = [r.getMessage() for r in logged.records if r.levelno == logging.DEBUG]
        warning = [r.getMessage() for r in logged.records if r.levelno == logging.WARNING]
        self.assertEqual(len(debug), 2)
        self.assertTrue(debug[0].startswith(
            f"ZeltoCom_Send('{self.paths[0]}', 'GETSERIAL', <buffer>) = 1 in "), debug[0])
        self.assertEqual(warning, [f"ZeltoCom_Send on {self.paths[0]}: Syntax error"])

    def test_a_station_captures_its_own_ports_beside_an_open_spectrometer(self) -> None:
        analysers, spectrometer = self.paths[3:6], self.paths[6]
        self.assertEqual(zeltocom.detect(), self.paths)
        with Instrument(spectrometer) as alone, Station(analysers) as station:
            alone.spectrometer_capture(exposure=20)
            captured = station.capture(range=numpy.int64(0) if numpy else 0)
            self.assertEqual({path: [(r.fiber, r.intensity, r.intensity_scale) for r in fibers]
                              for path, fibers in captured.items()},
                             {path: [(1, 1200, "logarithmic"), (2, 1200, "logarithmic")]
                              for path in analysers})
        with Station(analysers + [spectrometer]) as station:
            with self.raises(f"ZeltoCom_Capture on {spectrometer}: Device is a Spectrometer"):
                station.capture()
        self.assertEqual(zeltocom.opened_ports(), [])

    def test_a_station_opens_by_serial_numbers_in_their_order_and_names_a_failure(self) -> None:
        with Station.by_serials(["ZS000002", "ZW000009", "ZS000001"]) as station:
            self.assertEqual(station.paths, [self.paths[4], self.paths[6], self.paths[3]])
            self.assertEqual(station.send("GETSERIAL"), ["ZS000002", "ZW000009", "ZS000001"])
        with self.raises("ZeltoCom_OpenSN_Multi on ZS99: Unable to find device"):
            Station.by_serials(["ZS000001", "ZS99"])
        with self.raises("ZeltoCom_Open_Multi on /dev/pts/missing: Device Path not available"):
            Station(self.paths + ["/dev/pts/missing"])
        self.assertEqual(zeltocom.opened_ports(), [])

    def test_a_project_opens_addresses_and_closes_its_instruments(self) -> None:
        port = self.paths[7]
        path = self.write("station.prj", f"[DEVICE]\nPORT={port}\nID=LEFT\nSERIALNUMBER=ZP000001\n"
                                         f"[END]\n[DEVICE]\nPORT={port}\nID=BEHIND\n"
                                         "SERIALNUMBER=ZP000002\nROLE=DAISY-CHAIN\n[END]\n")
        with Project(path) as project:
            self.assertEqual((zeltocom.opened_ports(), project.port("LEFT")), ([port], port))
            self.assertEqual((project.knows("BEHIND"), project.knows("RIGHT")), (True, False))
            # Whichever instrument holds the line answers.
            self.assertEqual(project.send("BEHIND", "GETSERIAL"), "ZP000001")
            self.assertEqual(project.instrument("LEFT").send("GETSERIAL", serial="ZP000002"),
                             "ZP000002")
            with self.raises("ZeltoCom_SendByID on RIGHT: ID not found"):
                project.send("RIGHT", "GETSERIAL")
        self.assertEqual(zeltocom.opened_ports(), [])

    def test_bins_found_exactly_or_by_the_established_rule_and_listed(self) -> None:
        path = self.write("bins.vec", "Square=0.3,0.3;0.4,0.3;0.4,0.4;0.3,0.4\n"
                                      "0.5,0.5;0.6,0.55;0.55,0.65\n")
        # The established rule takes a point above the square for one in it.
        for (x, y), exactly, by_rule in [((0.35, 0.45), None, "Square"),
                                         ((0.56, 0.56), "Area 2", "Area 2"), ((0.1, 0.8), None, None)]:
            self.assertEqual((zeltocom.find_bin(path, x, y), zeltocom.bin_of(path, x, y)),
                             (exactly, by_rule))
        self.assertEqual(zeltocom.check_bins(path),
                         ["Square: an edge parallel or nearly parallel to the y axis"])
        listed = zeltocom.bins(path)
        self.assertEqual([name for name, _ in listed], ["Square", "Area 2"])
        self.assertEqual(listed[0][1], [(0.3, 0.3), (0.4, 0.3), (0.4, 0.4), (0.3, 0.4)])
        for name, find in [("FindBin", zeltocom.find_bin),
                           ("GetBinFromVECFile", zeltocom.bin_of)]:
            with self.subTest(name), self.raises(f"ZeltoCom_Binning_{name}: The x must be a finite"):
                find(path, math.inf, 0.3)
        with self.raises("ZeltoCom_Binning_ListBins: Unable to open file"):
            zeltocom.bins(Path(path).with_name("missing.vec"))


if __name__ == "__main__":
    unittest.main()
