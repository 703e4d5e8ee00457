"""One instrument on one port, and the daisy chain behind it."""

from __future__ import annotations

import ctypes
import time
from types import TracebackType
from typing import Any, Optional, Sequence, Type

from ._library import (INT_MAX, INT_MIN, MAX_SAMPLES, UINT_MAX, PathLike, ZeltoComError, call,
                       decode, encode, fail, int_array, real, whole)
from ._sizes import ANSWER_SIZE, DEVICE_PATH_SIZE, SERIAL_NUMBER_SIZE
from .calibration import UserCalibration
from .readings import (Blinking, Column, Reading, Run, Samples, SequenceSettings, TriggerState,
                       column, in_linear_intensity, numpy_module, parse_report, read_fibers)


def intensity_scale(path: str) -> str:
    """"logarithmic" or "linear": the scale in which the instrument that
    holds the line of the open port `path` reports intensities."""
    logarithmic = ctypes.c_int()
    call("ZeltoCom_GetIntensityScale", encode(path, "device path"), ctypes.byref(logarithmic),
         port=path)
    return "logarithmic" if logarithmic.value else "linear"


def converted_intensity(name: str, path: str, value: object, pwm: bool, range: object) -> int:
    """`value` through the conversion `name` of the instrument at `path`."""
    result = ctypes.c_int()
    call(name, encode(path, "device path", name), whole(value, "intensity", call=name),
         int(bool(pwm)), whole(range, "range", 0, 6, call=name), ctypes.byref(result), port=path)
    return result.value


def linear_readings(path: str, readings: Sequence[Reading], range: object,
                    pwm: bool) -> list[Reading]:
    """`readings` of a capture (of `range` and `pwm`) by the instrument that
    holds the line of `path`, their intensity made linear."""
    if all(reading.intensity is None for reading in readings):
        return list(readings)
    return in_linear_intensity(
        readings, intensity_scale(path),
        lambda value: converted_intensity("ZeltoCom_IntensityToLinear", path, value, pwm, range))


def port_of_serial(serial: str) -> str:
    """The path of the open port whose instrument has `serial`."""
    buffer = ctypes.create_string_buffer(DEVICE_PATH_SIZE + 1)
    call("ZeltoCom_GetPortBySN", buffer, encode(serial, "serial number"), port=serial,
         port_text=False)
    return decode(buffer.value)


def capture_arguments(range: object, pwm: object, frames: object, name: str) -> tuple[int, ...]:
    """The pwm, range and frames arguments of an LED capture, as ints."""
    return (int(bool(pwm)), whole(range, "range", call=name),
            whole(frames, "frame count", call=name))


# The sequence readouts besides the intensities: the call and its columns'
# C types, in the call's order.
_READOUTS: dict[str, tuple[str, tuple[tuple[str, Any], ...]]] = {
    "xyi": ("ZeltoCom_Sequence_ReadxyI",
            (("x", ctypes.c_float), ("y", ctypes.c_float), ("intensity", ctypes.c_int))),
    "hsi": ("ZeltoCom_Sequence_ReadHSI",
            (("hue", ctypes.c_float), ("saturation", ctypes.c_int), ("intensity", ctypes.c_int))),
    "rgbi": ("ZeltoCom_Sequence_ReadRGBI",
             (("red", ctypes.c_ubyte), ("green", ctypes.c_ubyte), ("blue", ctypes.c_ubyte),
              ("intensity", ctypes.c_int))),
    "cct": ("ZeltoCom_Sequence_ReadCCT", (("cct", ctypes.c_int), ("cct_second", ctypes.c_float))),
    "wavelength": ("ZeltoCom_Sequence_ReadWavelength", (("wavelength", ctypes.c_int),)),
}


class Instrument:
    """An open port: opened on construction (`baud` 0 searches the rate), or
    by serial number with `by_serial`, and closed by `close()` or at the end
    of a `with` block."""

    def __init__(self, path: PathLike, baud: int = 0) -> None:
        self._adopt(str(path))
        call("ZeltoCom_Open", self._path, whole(baud, "baud rate", call="ZeltoCom_Open"),
             port=self.path, port_text=False)
        self._open = True

    def _adopt(self, path: str) -> None:
        self.path = path
        self._path = encode(path, "device path")
        self._chained: list[str] = []
        self._samples: Optional[int] = None
        self._trigger_output: Optional[str] = None
        self._open = False

    @classmethod
    def by_serial(cls, serial: str, baud: int = 0) -> "Instrument":
        """Opens the instrument with the serial number `serial`, found among
        the detected ports (`baud` 0 searches the rate)."""
        name = "ZeltoCom_OpenSN"
        call(name, encode(serial, "serial number", name), whole(baud, "baud rate", call=name),
             port=serial, port_text=False)
        return cls.of_open_port(port_of_serial(serial))

    @classmethod
    def of_open_port(cls, path: str) -> "Instrument":
        """An Instrument for a port the process has open already (by a
        Station or a project, say); its `close()` closes that port."""
        instrument = cls.__new__(cls)
        instrument._adopt(path)
        instrument._open = True
        return instrument

    def __enter__(self) -> "Instrument":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"Instrument({self.path!r}{'' if self._open else ', closed'})"

    def close(self) -> None:
        """Closes the port; closing again does nothing."""
        if self._open:
            self._open = False
            call("ZeltoCom_Close", self._path, port=self.path, succeeded=lambda result: True)

    def _call(self, name: str, *arguments: object, **options: Any) -> Any:
        return call(name, self._path, *arguments, port=self.path, **options)

    def _whole(self, value: object, what: str, name: str, low: int = INT_MIN,
               high: int = INT_MAX) -> int:
        return whole(value, what, low, high, call=name)

    # ---- identity and time-outs ----

    @property
    def serial_number(self) -> str:
        """The serial number of the port's own instrument."""
        buffer = ctypes.create_string_buffer(SERIAL_NUMBER_SIZE)
        call("ZeltoCom_GetSNByPort", buffer, self._path, port=self.path)
        return decode(buffer.value)

    @property
    def baud_rate(self) -> int:
        """The rate the port works at."""
        rate: int = self._call("ZeltoCom_GetBaudrate", succeeded=lambda result: result != 0)
        return rate

    @property
    def device_type(self) -> str:
        """The model family: "ICT", "SPECTROMETER", ..."""
        buffer = ctypes.create_string_buffer(16)
        self._call("ZeltoCom_GetDeviceType", buffer)
        return decode(buffer.value)

    def set_automatic_timeouts(self, automatic: bool = True) -> None:
        """With `automatic`, this port's captures wait as long as the
        instrument's settings make them last; without, they wait the
        library-wide response time-out (zeltocom.set_response_timeout)."""
        self._call("ZeltoCom_SetResponseTimeoutAuto", 1 if automatic else 0)

    @property
    def calibration(self) -> UserCalibration:
        """The user calibration of the port's instrument, fiber by fiber."""
        return UserCalibration(self.path, self._call)

    # ---- commands and LED captures ----

    def send(self, command: str, serial: Optional[str] = None) -> str:
        """The answer to `command`, from the port's instrument or from the
        chained instrument with `serial`."""
        answer = ctypes.create_string_buffer(ANSWER_SIZE)
        if serial is None:
            self._call("ZeltoCom_Send", encode(command, "command", "ZeltoCom_Send"), answer)
        else:
            name = "ZeltoCom_DaisyChain_Send"
            # A chained instrument keeps its error text to itself: the
            # library's last one names it.
            call(name, self._path, encode(serial, "serial number", name),
                 encode(command, "command", name), answer, port=self.path, port_text=False)
        return decode(answer.value)

    def readings(self, serial: Optional[str] = None, range: int = 0,
                 pwm: bool = False) -> list[Reading]:
        """Every fiber's values from the last capture (made with `range` and
        `pwm`), without capturing; intensity linear (see Reading)."""
        def ask(ports: Sequence[str], command: str) -> list[str]:
            return [self.send(command, serial) for _ in ports]
        # Read from a chained instrument, the line is still its own here.
        return linear_readings(self.path, read_fibers([self.path], ask)[self.path], range, pwm)

    def capture(self, range: int = 0, pwm: bool = False, frames: int = 0) -> list[Reading]:
        """An LED capture (`range` 0 automatic, or 1 to 6; `frames` of a PWM
        capture, 0 the default) and every fiber's values, intensity linear."""
        self._call("ZeltoCom_Capture",
                   *capture_arguments(range, pwm, frames, "ZeltoCom_Capture"))
        return self.readings(range=range, pwm=pwm)

    # ---- intensity scales ----

    @property
    def intensity_scale(self) -> str:
        """"logarithmic" or "linear": the scale the instrument reports in."""
        return intensity_scale(self.path)

    def intensity_to_linear(self, value: int, pwm: bool = False, range: int = 0) -> int:
        """A reported intensity (of a capture with `range` and `pwm`) as a
        linear one; a linear instrument's value comes back as it is."""
        return converted_intensity("ZeltoCom_IntensityToLinear", self.path, value, pwm, range)

    def intensity_to_log(self, value: int, pwm: bool = False, range: int = 0) -> int:
        """A linear intensity in the instrument's logarithmic scale."""
        return converted_intensity("ZeltoCom_IntensityToLog", self.path, value, pwm, range)

    # ---- spectrometers ----

    def spectrometer_capture(self, exposure: Optional[float] = None, pwm: bool = False) -> None:
        """A spectrometer capture; `exposure` in ms, None lets the instrument
        choose."""
        self._spectrometer("ZeltoCom_SpectrometerCapture", exposure, pwm)

    def spectrometer_dark(self, exposure: Optional[float] = None, pwm: bool = False) -> None:
        """A spectrometer's dark reference; arguments as spectrometer_capture."""
        self._spectrometer("ZeltoCom_SpectrometerDark", exposure, pwm)

    def _spectrometer(self, name: str, exposure: Optional[float], pwm: bool) -> None:
        manual = exposure is not None
        milliseconds = 0.0 if exposure is None else real(exposure, "exposure", name)
        self._call(name, int(bool(pwm)), int(manual), milliseconds)

    # ---- daisy chain ----

    def chain_add(self, serial: str) -> None:
        """Makes the instrument with `serial`, chained behind this one, known."""
        name = "ZeltoCom_DaisyChain_Add"
        self._call(name, encode(serial, "serial number", name))
        if serial not in self._chained:
            self._chained.append(serial)

    def chain_capture(self, range: int = 0, pwm: bool = False,
                      frames: int = 0) -> dict[str, list[Reading]]:
        """A capture of the whole chain at once; every instrument's readings
        by serial number, this port's own first."""
        name = "ZeltoCom_DaisyChain_Capture"
        self._call(name, *capture_arguments(range, pwm, frames, name))
        serials = [self.serial_number] + self._chained
        return {serial: self.readings(serial, range, pwm) for serial in serials}

    # ---- external trigger ----

    def trigger_enable(self, output: str = "NONE", range: int = 0, pwm: bool = False,
                       pre_delay: int = 0, post_delay: int = 0, store: bool = False) -> None:
        """Arms the trigger input; `output` is what the instrument reports
        ("NONE", "HSI", "XYI", "RGBI", "CCTI", "ABSINT", "WSI"); delays in
        ms; `store` keeps the setting in the instrument."""
        name = "ZeltoCom_ExternalTrigger_Enable"
        self._trigger_output = None
        self._call(name, self._whole(range, "range", name), int(bool(pwm)),
                   encode(output, "output type", name),
                   self._whole(pre_delay, "pre-delay", name, 0, UINT_MAX),
                   self._whole(post_delay, "post-delay", name, 0, UINT_MAX), int(bool(store)))
        self._trigger_output = output.strip().upper()

    def trigger_disable(self, store: bool = False) -> None:
        """Switches the trigger input off."""
        self._call("ZeltoCom_ExternalTrigger_Disable", int(bool(store)))

    def trigger_listen(self) -> None:
        """Starts waiting, in the library's own thread, for the trigger's report."""
        self._call("ZeltoCom_ExternalTrigger_Listen")

    def trigger_state(self) -> TriggerState:
        """What the listener is doing, without waiting for it."""
        return TriggerState(self._call("ZeltoCom_ExternalTrigger_isFinished",
                                       succeeded=lambda result: True))

    def trigger_wait(self, timeout: Optional[float] = None,
                     poll: float = 0.01) -> Optional[list[Reading]]:
        """The report of a listened-for trigger, a Reading per fiber with the
        fields of the output type (an empty list for "NONE"'s "OK"); None
        when `timeout` seconds pass first (the listener goes on)."""
        report = self.trigger_report(timeout, poll)
        if report is None:
            return None
        if self._trigger_output is None:
            # Armed elsewhere: the instrument says what it reports.
            self._trigger_output = self.send("GETEXTERNALOUTPUT").strip().upper()
        try:
            return parse_report(self._trigger_output, report)
        except ZeltoComError as error:
            raise fail(error.text, "Instrument.trigger_wait", self.path) from None

    def trigger_report(self, timeout: Optional[float] = None,
                       poll: float = 0.01) -> Optional[str]:
        """The report of a listened-for trigger as the instrument sent it;
        None when `timeout` seconds pass first (the listener goes on)."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while (state := self.trigger_state()) == TriggerState.LISTENING:
            if deadline is not None and time.monotonic() >= deadline:
                return None
            time.sleep(poll)
        if state == TriggerState.ENDED:
            raise fail("The trigger listener was ended before a report came",
                       "ZeltoCom_ExternalTrigger_isFinished", self.path, int(state))
        if state == TriggerState.FAILED:
            self._call("ZeltoCom_ExternalTrigger_isFinished")  # raises with the library's text
        answer = ctypes.create_string_buffer(ANSWER_SIZE)
        self._call("ZeltoCom_GetResponseByPort", answer)
        return decode(answer.value)

    def trigger_abort(self) -> None:
        """Ends the listener."""
        self._call("ZeltoCom_ExternalTrigger_Abort")

    # ---- sequences ----

    def sequence_setup(self, capture_time: int, sample_count: int, time_between_captures: int = 0,
                       start_delay: int = 0, store: bool = False) -> None:
        """`sample_count` captures of `capture_time` ms, `time_between_captures`
        ms apart, after `start_delay` ms; `store` keeps them in the instrument."""
        name = "ZeltoCom_Sequence_Setup"
        self._samples = None
        self._call(name, self._whole(start_delay, "start delay", name, 0, UINT_MAX),
                   self._whole(capture_time, "capture time", name, 0, UINT_MAX),
                   self._whole(time_between_captures, "time between captures", name, 0, UINT_MAX),
                   self._whole(sample_count, "sample count", name), int(bool(store)))
        self._samples = int(sample_count)

    def sequence_capture(self, fiber: int = 0) -> None:
        """Runs the sequence on one fiber, or on all with 0."""
        name = "ZeltoCom_Sequence_Capture"
        self._call(name, self._whole(fiber, "fiber", name))

    def _sample_count(self, name: str) -> int:
        if self._samples is None:
            raise fail("No sequence set up through this object: call sequence_setup first",
                       name, self.path)
        return self._samples

    def _samples_of(self, intensities: Sequence[int], name: str) -> ctypes.Array[ctypes.c_int]:
        if len(intensities) != self._sample_count(name):
            raise fail(f"{len(intensities)} intensities given for a sequence of "
                       f"{self._sample_count(name)} samples", name, self.path)
        return int_array(intensities, what="intensity", call=name)

    def sequence_read_intensity(self, fiber: int, as_numpy: bool = False) -> Column:
        """One intensity per sample of `fiber`, ready for sequence_pattern
        and sequence_frequency: a list, or an int32 numpy array."""
        return self._sequence_read("ZeltoCom_Sequence_ReadIntensity",
                                   (("intensity", ctypes.c_int),), fiber, as_numpy).intensity

    def sequence_read_xyi(self, fiber: int, as_numpy: bool = False) -> Samples:
        """x, y and intensity of each sample of `fiber`."""
        return self._sequence_read(*_READOUTS["xyi"], fiber, as_numpy)

    def sequence_read_hsi(self, fiber: int, as_numpy: bool = False) -> Samples:
        """Hue, saturation and intensity of each sample of `fiber`."""
        return self._sequence_read(*_READOUTS["hsi"], fiber, as_numpy)

    def sequence_read_rgbi(self, fiber: int, as_numpy: bool = False) -> Samples:
        """Red, green, blue and intensity of each sample of `fiber`."""
        return self._sequence_read(*_READOUTS["rgbi"], fiber, as_numpy)

    def sequence_read_cct(self, fiber: int, as_numpy: bool = False) -> Samples:
        """The CCT of each sample of `fiber`, and the value the instrument
        reports beside it (`cct_second`), as read."""
        return self._sequence_read(*_READOUTS["cct"], fiber, as_numpy)

    def sequence_read_wavelength(self, fiber: int, as_numpy: bool = False) -> Samples:
        """The dominant wavelength of each sample of `fiber`."""
        return self._sequence_read(*_READOUTS["wavelength"], fiber, as_numpy)

    def _sequence_read(self, name: str, columns: tuple[tuple[str, Any], ...], fiber: int,
                       as_numpy: bool) -> Samples:
        count = self._sample_count(name)
        if as_numpy:
            numpy_module(name)
        fiber = self._whole(fiber, "fiber", name)
        # Room for the longest sequence, whoever set up the instrument's.
        arrays = {column_name: (kind * MAX_SAMPLES)() for column_name, kind in columns}
        self._call(name, fiber, *arrays.values())
        return Samples(fiber, **{column_name: column(array, count, as_numpy)
                                 for column_name, array in arrays.items()})

    def sequence_pattern(self, intensities: Sequence[int]) -> list[Run]:
        """The lit and dark runs of a sequence's intensities."""
        name = "ZeltoCom_Sequence_GetPattern"
        samples = self._samples_of(intensities, name)
        count = ctypes.c_int(0)
        durations, levels = int_array(), int_array()
        self._call(name, samples, ctypes.byref(count), durations, levels)
        return [Run(durations[i], levels[i]) for i in range(min(count.value, MAX_SAMPLES))]

    def sequence_frequency(self, intensities: Sequence[int]) -> Blinking:
        """The blinking in a sequence's intensities; ZeltoComError when there
        is none."""
        name = "ZeltoCom_Sequence_GetFrequency"
        samples = self._samples_of(intensities, name)
        frequency, duty = ctypes.c_float(0), ctypes.c_float(0)
        cycles = ctypes.c_int(0)
        self._call(name, samples, ctypes.byref(frequency), ctypes.byref(duty),
                   ctypes.byref(cycles))
        return Blinking(frequency.value, duty.value, cycles.value)

    def sequence_find_settings(self, fiber: int, min_hz: float, max_hz: float) -> SequenceSettings:
        """Settings that resolve a light blinking between `min_hz` and
        `max_hz`, found with a trial sequence (not stored in the instrument)."""
        name = "ZeltoCom_Sequence_FindTestSettings"
        capture_time, pause = ctypes.c_uint(0), ctypes.c_uint(0)
        count = ctypes.c_int(0)
        arguments = (self._whole(fiber, "fiber", name), real(min_hz, "lowest frequency", name),
                     real(max_hz, "highest frequency", name))
        # The trial replaces whatever sequence was set up.
        self._samples = None
        self._call(name, *arguments, ctypes.byref(capture_time), ctypes.byref(pause),
                   ctypes.byref(count))
        self._samples = count.value
        return SequenceSettings(capture_time.value, pause.value, count.value)
