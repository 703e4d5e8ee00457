"""What the package adds to the library's calls, on simulated instruments."""

import logging
import math
import pickle
import tempfile
from fractions import Fraction
from pathlib import Path

import zeltocom
from zeltocom import Instrument, Project, Station, TriggerState

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

    def test_opens_logs_fails_with_the_text_the_call_and_the_port_and_closes(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            self.assertEqual((analyser.serial_number, analyser.baud_rate, analyser.device_type),
                             ("ZA000001", 115200, "ICT"))
            self.assertEqual(zeltocom.opened_ports(), [self.paths[0]])
            with self.assertLogs("zeltocom", logging.DEBUG) as logged:
                self.assertEqual(analyser.send("getserial"), "ZA000001")
                with self.raises(f"ZeltoCom_Send on {self.paths[0]}: Syntax error"):
                    analyser.send("NOSUCHCOMMAND")
            with self.raises("ZeltoCom_Send: The command contains a NUL character"):
                analyser.send("GET\0SERIAL")
            # The port's own last error is stale here: opening it again
            # fails with a text the library keeps for no port.
            with self.raises(f"ZeltoCom_Open on {self.paths[0]}: The port is already in use"
                             ) as caught:
                Instrument(self.paths[0])
        self.assertEqual(zeltocom.opened_ports(), [])
        debug = [r.getMessage() for r in logged.records if r.levelno == logging.DEBUG]
        warning = [r.getMessage() for r in logged.records if r.levelno == logging.WARNING]
        self.assertEqual(len(debug), 2)
        self.assertTrue(debug[0].startswith(
            f"ZeltoCom_Send('{self.paths[0]}', 'getserial', <buffer>) = 1 in "), debug[0])
        self.assertEqual(warning, [f"ZeltoCom_Send on {self.paths[0]}: Syntax error"])
        error = pickle.loads(pickle.dumps(caught.exception))
        self.assertEqual((error.text, error.call, error.port, error.result),
                         ("The port is already in use", "ZeltoCom_Open", self.paths[0],
                          caught.exception.result))
        with Instrument.by_serial("ZA000002", baud=numpy.int32(0) if numpy else 0) as analyser:
            self.assertEqual(analyser.path, self.paths[1])
        with self.raises("ZeltoCom_OpenSN on ZA999999: Unable to find device"):
            Instrument.by_serial("ZA999999")
        with self.raises("ZeltoCom_OpenSN: The serial number must be a text"):
            Instrument.by_serial(None)  # type: ignore[arg-type]

    def test_capture_reads_every_fiber_in_linear_intensity(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            readings = analyser.capture(range=2)
            self.assertEqual([r.fiber for r in readings], [1, 2, 3])
            third = readings[2]
            self.assertEqual(f"{third.x:.4f} {third.y:.4f}", analyser.send("GETxy03"))
            # Shown linear, as reported kept: 1200 reads 16411 on the logarithmic scale.
            self.assertEqual((third.intensity_raw, third.intensity_scale), (16411, "logarithmic"))
            self.assertAlmostEqual(third.intensity, 1200, delta=1)
            with self.raises("ZeltoCom_IntensityToLinear: The range must be between 0 and 6"):
                analyser.intensity_to_linear(100, range=7)

    def test_user_calibration_and_time_outs_take_the_package_s_types(self) -> None:
        with Instrument(self.paths[1]) as analyser:  # its captures take 400 ms
            c = analyser.calibration
            # get, set, reset, a value to set, the value after a reset
            quantities = [
                (c.xy_offsets, c.set_xy_offsets, c.reset_xy_offsets, (0.012, -0.003), (0.0, 0.0)),
                (c.wavelength_offset, c.set_wavelength_offset, c.reset_wavelength_offset,
                 (-7,), 0),
                (c.intensity_gain, c.set_intensity_gain, c.reset_intensity_gain, (120,), 100),
                (c.absolute_intensity_factor, c.set_absolute_intensity_factor,
                 c.reset_absolute_intensity_factor, (Fraction(5, 2),), 1.0),
            ]
            for get, set_, reset, value, initial in quantities:
                with self.subTest(get.__name__):
                    set_(1, *value, store=True)
                    got = get(1)
                    self.assertEqual(got if isinstance(got, tuple) else (got,), value)
                    reset(1)
                    self.assertEqual(get(1), initial)
            reading = analyser.capture()[0]
            c.adjust_wavelength_offset(1, reading.wavelength + 5)
            c.adjust_intensity_gain(1, round(reading.intensity * 1.2))
            self.assertEqual(c.wavelength_offset(1), 5)
            self.assertAlmostEqual(c.intensity_gain(1), 120, delta=1)
            c.reset_wavelength_offset(1)
            c.reset_intensity_gain(1)
            with self.raises(f"ZeltoCom_UserCal_TakeRGBCurrentValues on {self.paths[1]}: "
                             "The colour must be one letter"):
                c.take_rgb(1, "RG")
            with self.raises("ZeltoCom_UserCal_AdjustRGB: The green y must be a finite number"):
                c.adjust_rgb(1, (0, 0, 1), (0, math.nan, 1), (0, 0, 1))
            self.addCleanup(zeltocom.set_response_timeout, 2500)
            zeltocom.set_response_timeout(100.0)
            analyser.capture()  # waits as long as the instrument's settings say
            analyser.set_automatic_timeouts(False)
            with self.raises(f"ZeltoCom_Capture on {self.paths[1]}: Timeout"):
                analyser.capture()

    def test_sequence_readouts_as_lists_and_as_numpy_arrays(self) -> None:
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
            self.assertGreater(len(analyser.sequence_pattern(intensities)), 2 * blinking.cycles)
            with self.raises(f"ZeltoCom_Sequence_GetFrequency on {self.paths[2]}: {count - 1} "
                             f"intensities given for a sequence of {count} samples"):
                analyser.sequence_frequency(intensities[1:])
            with self.subTest("numpy"):
                if numpy is None:
                    self.skipTest("needs numpy (Debian: python3-numpy)")
                array = analyser.sequence_read_intensity(1, as_numpy=True)
                self.assertEqual((array.dtype, array.tolist(),
                                  analyser.sequence_read_rgbi(1, as_numpy=True).red.dtype,
                                  analyser.sequence_read_xyi(1, as_numpy=True).x.dtype),
                                 (numpy.int32, intensities, numpy.uint8, numpy.float32))
                # Float arrays hold the same numbers: a blinking found alike.
                self.assertEqual(analyser.sequence_frequency(array.astype(float)), blinking)
                with self.raises("ZeltoCom_Sequence_GetFrequency: The intensity must be a whole"):
                    analyser.sequence_frequency(array / 2.0 + 0.25)

    def test_trigger_reports_arrive_as_readings_of_their_output_type(self) -> None:
        with Instrument(self.paths[0]) as analyser:
            analyser.trigger_enable("xyi", pre_delay=10, post_delay=10)
            analyser.trigger_listen()
            self.assertIsNone(analyser.trigger_wait(timeout=0.05))
            self.assertEqual(analyser.trigger_state(), TriggerState.LISTENING)
            self.sim.fire(1)
            self.assertEqual(len(analyser.trigger_wait(timeout=10)), 3)
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

    def test_a_station_opens_captures_and_names_the_port_that_failed(self) -> None:
        analysers, spectrometer = self.paths[3:6], self.paths[6]
        self.assertEqual(zeltocom.detect(), self.paths)
        with Instrument(spectrometer), Station(analysers) as station:
            captured = station.capture(range=numpy.int64(0) if numpy else 0)
            self.assertEqual({path: [(r.fiber, r.intensity, r.intensity_scale) for r in fibers]
                              for path, fibers in captured.items()},
                             {path: [(1, 1200, "logarithmic"), (2, 1200, "logarithmic")]
                              for path in analysers})
        with Station(analysers + [spectrometer]) as station:
            with self.raises(f"ZeltoCom_Capture on {spectrometer}: Device is a Spectrometer"):
                station.capture()
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

    def test_bins_found_checked_and_listed(self) -> None:
        path = self.write("bins.vec", "Square=0.3,0.3;0.4,0.3;0.4,0.4;0.3,0.4\n"
                                      "0.5,0.5;0.6,0.55;0.55,0.65\n")
        for (x, y), found in [((0.56, 0.56), "Area 2"), ((0.1, 0.8), None)]:
            self.assertEqual((zeltocom.find_bin(path, x, y), zeltocom.bin_of(path, x, y)),
                             (found, found))
        self.assertEqual(zeltocom.check_bins(path),
                         ["Square: an edge parallel or nearly parallel to the y axis"])
        self.assertEqual(zeltocom.bins(path)[0],
                         ("Square", [(0.3, 0.3), (0.4, 0.3), (0.4, 0.4), (0.3, 0.4)]))
        with self.raises("ZeltoCom_Binning_GetBinFromVECFile: The x must be a finite number"):
            zeltocom.bin_of(path, math.inf, 0.3)
        with self.raises("ZeltoCom_Binning_ListBins: Unable to open file"):
            zeltocom.bins(Path(path).with_name("missing.vec"))

