import os
import pickle
import tempfile
import unittest

import zeltocom
from zeltocom import Instrument, Station, TriggerState, ZeltoComError, readings

from .simulator import Simulator


class InstrumentTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        cls.sim = Simulator("--port", "serial=ZA000001,fibers=3,baud=115200",
                            "--port", "serial=ZW000002,hw=Zelto 01-W2",
                            "--port", "serial=ZA000003,fibers=1", "--blink", "1:5:50")
        cls.analyser, cls.spectrometer, cls.blinking = cls.sim.paths

    @classmethod
    def tearDownClass(cls) -> None:
        cls.sim.stop()

    def test_opens_answers_and_closes_as_a_context_manager(self) -> None:
        with Instrument(self.analyser) as analyser:
            self.assertEqual(analyser.serial_number, "ZA000001")
            self.assertEqual(analyser.baud_rate, 115200)
            self.assertEqual(analyser.device_type, "ICT")
            self.assertEqual(analyser.send("getserial"), "ZA000001")
            self.assertIn(self.analyser, zeltocom.opened_ports())
        self.assertNotIn(self.analyser, zeltocom.opened_ports())
        with self.assertRaises(ZeltoComError):
            analyser.send("GETSERIAL")

    def test_capture_reads_every_fiber(self) -> None:
        with Instrument(self.analyser) as analyser:
            readings = analyser.capture(range=2)
            self.assertEqual([r.fiber for r in readings], [1, 2, 3])
            third = readings[2]
            self.assertEqual(f"{third.x:.4f} {third.y:.4f}", analyser.send("GETxy03"))
            # Shown linear, as reported kept: 1200 reads 16411 on the logarithmic scale.
            self.assertEqual(third.intensity_raw, int(analyser.send("GETINTENSITY03")))
            self.assertEqual((third.intensity_raw, third.intensity_scale), (16411, "logarithmic"))
            self.assertAlmostEqual(third.intensity, 1200, delta=1)
            analyser.send("SETLIN")
            try:
                linear = analyser.capture()[2]
                self.assertEqual((linear.intensity_raw, linear.intensity_scale),
                                 (linear.intensity, "linear"))
                with self.assertRaises(ZeltoComError) as caught:
                    analyser.intensity_to_linear(100, range=7)
                self.assertIn("between 0 and 6", caught.exception.text)
            finally:
                analyser.send("SETLOG")
            self.assertEqual(third.wavelength, int(analyser.send("GETWAVELENGTH03")))
            self.assertNotEqual(readings[0], readings[1])

    def test_failures_raise_with_the_library_text_the_call_and_the_port(self) -> None:
        with self.assertRaises(ZeltoComError) as caught:
            Instrument(self.analyser + "-missing")
        self.assertEqual(caught.exception.text, "Device Path not available")
        with Instrument(self.analyser) as analyser, Instrument(self.spectrometer) as spectrometer:
            with self.assertRaises(ZeltoComError) as caught:
                analyser.send("NOSUCHCOMMAND")
            self.assertEqual((caught.exception.text, caught.exception.port),
                             ("Syntax error", self.analyser))
            # The port's own last error is stale here: opening it again
            # fails with a text the library keeps for no port.
            with self.assertRaises(ZeltoComError) as caught:
                Instrument(self.analyser)
            self.assertEqual(str(caught.exception),
                             f"ZeltoCom_Open on {self.analyser}: The port is already in use")
            self.assertEqual(caught.exception.call, "ZeltoCom_Open")
            with self.assertRaises(ZeltoComError) as caught:
                spectrometer.capture()
            self.assertEqual(str(caught.exception),
                             f"ZeltoCom_Capture on {self.spectrometer}: Device is a Spectrometer")
            spectrometer.spectrometer_dark(exposure=20)
            spectrometer.spectrometer_capture(exposure=20)
            with self.assertRaises(ZeltoComError):
                analyser.send("GET\0SERIAL")
        error = pickle.loads(pickle.dumps(caught.exception))
        self.assertEqual((str(error), error.result), (str(caught.exception),
                                                      caught.exception.result))

    def test_trace_shows_each_command_and_answer(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            trace = os.path.join(folder, "station.trace")
            zeltocom.set_trace(trace)
            try:
                with Instrument(self.analyser) as analyser:
                    analyser.send("GETNFIB")
            finally:
                zeltocom.set_trace(None)
            with open(trace, encoding="ascii") as lines:
                text = lines.read()
            self.assertIn(f"{self.analyser} ZA000001 > GETNFIB\\r\\n", text)
            self.assertIn(f"{self.analyser} ZA000001 < 3", text)
            with self.assertRaises(ZeltoComError) as caught:
                zeltocom.set_trace(os.path.join(folder, "missing", "trace"))
            self.assertTrue(caught.exception.text.startswith("Unable to open trace file"))

    def test_trigger_reports_arrive_as_readings_of_their_output_type(self) -> None:
        with Instrument(self.analyser) as analyser:
            for output, fields in readings.TRIGGER_REPORTS.items():
                with self.subTest(output=output):
                    analyser.trigger_enable(output, pre_delay=10, post_delay=10)
                    analyser.trigger_listen()
                    self.assertIsNone(analyser.trigger_wait(timeout=0.05))
                    self.assertEqual(analyser.trigger_state(), TriggerState.LISTENING)
                    self.sim.fire(1)
                    report = analyser.trigger_wait(timeout=10)
                    self.assertEqual(len(report), 3 if fields else 0)
                    for reading in report:
                        given = {name for name, value in vars(reading).items()
                                 if value is not None}
                        self.assertEqual(given, {"fiber", *fields})
            analyser.trigger_enable("xyi")
            analyser.trigger_listen()
            self.sim.fire(1)
            report = analyser.trigger_wait(timeout=10)
            self.assertEqual(f"{report[2].x:.4f} {report[2].y:.4f}", analyser.send("GETxy03"))
            analyser.trigger_listen()
            analyser.trigger_abort()
            self.assertIs(analyser.trigger_state(), TriggerState.ENDED)
            with self.assertRaises(ZeltoComError) as caught:
                analyser.trigger_wait()
            self.assertIn("ended before a report", str(caught.exception))
            analyser.trigger_disable()
        with Instrument(self.analyser) as analyser:
            # Armed by an earlier object: the instrument says what it reports.
            analyser.trigger_enable("CCTI")
        with Instrument(self.analyser) as analyser:
            analyser.trigger_listen()
            self.sim.fire(1)
            self.assertIsNotNone(analyser.trigger_wait(timeout=10)[0].cct)
            analyser.trigger_disable()

    def test_sequence_measures_a_blinking_light(self) -> None:
        with Instrument(self.blinking) as analyser:
            settings = analyser.sequence_find_settings(1, 4.0, 10.0)
            analyser.sequence_setup(settings.capture_time, settings.sample_count,
                                    settings.time_between_captures)
            analyser.sequence_capture(1)
            intensities = analyser.sequence_read_intensity(1)
            self.assertEqual(len(intensities), settings.sample_count)
            blinking = analyser.sequence_frequency(intensities)
            self.assertAlmostEqual(blinking.frequency, 5.0, delta=0.5)
            self.assertAlmostEqual(blinking.duty_cycle, 50.0, delta=10.0)
            self.assertGreater(len(analyser.sequence_pattern(intensities)), 2 * blinking.cycles)
            with self.assertRaises(ZeltoComError):
                analyser.sequence_frequency(intensities[1:])


class StationTest(unittest.TestCase):
    def setUp(self) -> None:
        self.sim = Simulator("--port", "serial=ZS0000,capturems=100", "--station", "3")
        self.addCleanup(self.sim.stop)

    def test_detects_opens_captures_and_closes_every_port(self) -> None:
        self.assertEqual(zeltocom.detect(), self.sim.paths)
        with Station(self.sim.paths) as station:
            self.assertEqual(station.send("GETSERIAL"), ["ZS000001", "ZS000002", "ZS000003"])
            readings = station.capture()
            self.assertEqual(list(readings), self.sim.paths)
            self.assertTrue(all(len(fibers) == 2 for fibers in readings.values()))
            self.assertEqual({(r.intensity, r.intensity_scale)
                              for fibers in readings.values() for r in fibers},
                             {(1200, "logarithmic")})
        self.assertEqual(zeltocom.opened_ports(), [])

    def test_a_failing_port_is_named(self) -> None:
        with self.assertRaises(ZeltoComError) as caught:
            Station(self.sim.paths + ["/dev/pts/missing"])
        self.assertEqual((caught.exception.port, caught.exception.text),
                         ("/dev/pts/missing", "Device Path not available"))
        self.assertEqual(zeltocom.opened_ports(), [])


if __name__ == "__main__":
    unittest.main()
