"""One instrument on one port, and the daisy chain behind it."""

from __future__ import annotations

import ctypes
import time
from types import TracebackType
from typing import Optional, Sequence, Type

from ._library import MAX_SAMPLES, PathLike, ZeltoComError, check, decode, encode, int_array, lib
from ._sizes import ANSWER_SIZE, SERIAL_NUMBER_SIZE
from .readings import Blinking, Reading, Run, SequenceSettings, TriggerState, read_fibers


class Instrument:
    """An open port: opened on construction (`baud` 0 searches the rate),
    closed by `close()` or at the end of a `with` block."""

    def __init__(self, path: PathLike, baud: int = 0) -> None:
        self.path = str(path)
        self._path = encode(path, "device path")
        self._chained: list[str] = []
        self._samples: Optional[int] = None
        self._open = False
        check(lib().ZeltoCom_Open(self._path, baud), "ZeltoCom_Open", self.path)
        self._open = True

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
            lib().ZeltoCom_Close(self._path)

    def _check(self, result: int, call: str) -> int:
        return check(result, call, self.path)

    # ---- identity ----

    @property
    def serial_number(self) -> str:
        buffer = ctypes.create_string_buffer(SERIAL_NUMBER_SIZE)
        self._check(lib().ZeltoCom_GetSNByPort(buffer, self._path), "ZeltoCom_GetSNByPort")
        return decode(buffer.value)

    @property
    def baud_rate(self) -> int:
        rate: int = lib().ZeltoCom_GetBaudrate(self._path)
        if rate == 0:
            self._check(0, "ZeltoCom_GetBaudrate")
        return rate

    @property
    def device_type(self) -> str:
        """The model family: "ICT", "SPECTROMETER", ..."""
        buffer = ctypes.create_string_buffer(16)
        self._check(lib().ZeltoCom_GetDeviceType(self._path, buffer), "ZeltoCom_GetDeviceType")
        return decode(buffer.value)

    # ---- commands and LED captures ----

    def send(self, command: str, serial: Optional[str] = None) -> str:
        """The answer to `command`, from the port's instrument or from the
        chained instrument with `serial`."""
        answer = ctypes.create_string_buffer(ANSWER_SIZE)
        text = encode(command, "command")
        if serial is None:
            self._check(lib().ZeltoCom_Send(self._path, text, answer), "ZeltoCom_Send")
        else:
            # A chained instrument keeps its error text to itself: the
            # library's last one names it.
            check(lib().ZeltoCom_DaisyChain_Send(self._path, encode(serial, "serial number"),
                                                 text, answer), "ZeltoCom_DaisyChain_Send")
        return decode(answer.value)

    def readings(self, serial: Optional[str] = None) -> list[Reading]:
        """Every fiber's values from the last capture, without capturing."""
        def ask(ports: Sequence[str], command: str) -> list[str]:
            return [self.send(command, serial) for _ in ports]
        return read_fibers([self.path], ask)[self.path]

    def capture(self, range: int = 0, pwm: bool = False, frames: int = 0) -> list[Reading]:
        """An LED capture (`range` 0 automatic, or 1 to 6; `frames` of a PWM
        capture, 0 the default) and every fiber's values."""
        self._check(lib().ZeltoCom_Capture(self._path, int(pwm), range, frames), "ZeltoCom_Capture")
        return self.readings()

    # ---- spectrometers ----

    def spectrometer_capture(self, exposure: Optional[float] = None, pwm: bool = False) -> None:
        """A spectrometer capture; `exposure` in ms, None lets the instrument
        choose."""
        self._spectrometer("ZeltoCom_SpectrometerCapture", exposure, pwm)

    def spectrometer_dark(self, exposure: Optional[float] = None, pwm: bool = False) -> None:
        """A spectrometer's dark reference; arguments as spectrometer_capture."""
        self._spectrometer("ZeltoCom_SpectrometerDark", exposure, pwm)

    def _spectrometer(self, call: str, exposure: Optional[float], pwm: bool) -> None:
        manual = exposure is not None
        function = getattr(lib(), call)
        self._check(function(self._path, int(pwm), int(manual), exposure if manual else 0.0), call)

    # ---- daisy chain ----

    def chain_add(self, serial: str) -> None:
        """Makes the instrument with `serial`, chained behind this one, known."""
        self._check(lib().ZeltoCom_DaisyChain_Add(self._path, encode(serial, "serial number")),
                    "ZeltoCom_DaisyChain_Add")
        if serial not in self._chained:
            self._chained.append(serial)

    def chain_capture(self, range: int = 0, pwm: bool = False,
                      frames: int = 0) -> dict[str, list[Reading]]:
        """A capture of the whole chain at once; every instrument's readings
        by serial number, this port's own first."""
        self._check(lib().ZeltoCom_DaisyChain_Capture(self._path, int(pwm), range, frames),
                    "ZeltoCom_DaisyChain_Capture")
        serials = [self.serial_number] + self._chained
        return {serial: self.readings(serial) for serial in serials}

    # ---- external trigger ----

    def trigger_enable(self, output: str = "NONE", range: int = 0, pwm: bool = False,
                       pre_delay: int = 0, post_delay: int = 0, store: bool = False) -> None:
        """Arms the trigger input; `output` is what the instrument reports
        ("NONE", "HSI", "XYI", "RGBI", "CCTI", "ABSINT", "WSI"); `store`
        keeps the setting in the instrument."""
        self._check(lib().ZeltoCom_ExternalTrigger_Enable(self._path, range, int(pwm),
                                                          encode(output, "output type"),
                                                          pre_delay, post_delay, int(store)),
                    "ZeltoCom_ExternalTrigger_Enable")

    def trigger_disable(self, store: bool = False) -> None:
        self._check(lib().ZeltoCom_ExternalTrigger_Disable(self._path, int(store)),
                    "ZeltoCom_ExternalTrigger_Disable")

    def trigger_listen(self) -> None:
        """Starts waiting, in the library's own thread, for the trigger's report."""
        self._check(lib().ZeltoCom_ExternalTrigger_Listen(self._path),
                    "ZeltoCom_ExternalTrigger_Listen")

    def trigger_state(self) -> TriggerState:
        return TriggerState(lib().ZeltoCom_ExternalTrigger_isFinished(self._path))

    def trigger_wait(self, timeout: Optional[float] = None,
                     poll: float = 0.01) -> Optional[str]:
        """The report of a listened-for trigger; None when `timeout` seconds
        pass first (the listener goes on)."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while (state := self.trigger_state()) == TriggerState.LISTENING:
            if deadline is not None and time.monotonic() >= deadline:
                return None
            time.sleep(poll)
        if state == TriggerState.ENDED:
            raise ZeltoComError("The trigger listener was ended before a report came", state,
                                self.path)
        self._check(int(state), "ZeltoCom_ExternalTrigger_isFinished")
        answer = ctypes.create_string_buffer(ANSWER_SIZE)
        self._check(lib().ZeltoCom_GetResponseByPort(self._path, answer),
                    "ZeltoCom_GetResponseByPort")
        return decode(answer.value)

    def trigger_abort(self) -> None:
        self._check(lib().ZeltoCom_ExternalTrigger_Abort(self._path),
                    "ZeltoCom_ExternalTrigger_Abort")

    # ---- sequences ----

    def sequence_setup(self, capture_time: int, sample_count: int, time_between_captures: int = 0,
                       start_delay: int = 0, store: bool = False) -> None:
        """`sample_count` captures of `capture_time` ms, `time_between_captures`
        ms apart, after `start_delay` ms; `store` keeps them in the instrument."""
        self._samples = None
        self._check(lib().ZeltoCom_Sequence_Setup(self._path, start_delay, capture_time,
                                                  time_between_captures, sample_count, int(store)),
                    "ZeltoCom_Sequence_Setup")
        self._samples = sample_count

    def sequence_capture(self, fiber: int = 0) -> None:
        """Runs the sequence on one fiber, or on all with 0."""
        self._check(lib().ZeltoCom_Sequence_Capture(self._path, fiber), "ZeltoCom_Sequence_Capture")

    def _sample_count(self) -> int:
        if self._samples is None:
            raise ZeltoComError("No sequence set up through this object: call sequence_setup "
                                "first", port=self.path)
        return self._samples

    def _samples_of(self, intensities: Sequence[int]) -> ctypes.Array[ctypes.c_int]:
        if len(intensities) != self._sample_count():
            raise ZeltoComError(f"{len(intensities)} intensities given for a sequence of "
                                f"{self._sample_count()} samples", port=self.path)
        return int_array(intensities)

    def sequence_read_intensity(self, fiber: int) -> list[int]:
        """One intensity per sample of `fiber`."""
        count = self._sample_count()
        samples = int_array()
        self._check(lib().ZeltoCom_Sequence_ReadIntensity(self._path, fiber, samples),
                    "ZeltoCom_Sequence_ReadIntensity")
        return samples[:count]

    def sequence_pattern(self, intensities: Sequence[int]) -> list[Run]:
        """The lit and dark runs of a sequence's intensities."""
        samples = self._samples_of(intensities)
        count = ctypes.c_int(0)
        durations, levels = int_array(), int_array()
        self._check(lib().ZeltoCom_Sequence_GetPattern(self._path, samples, ctypes.byref(count),
                                                       durations, levels),
                    "ZeltoCom_Sequence_GetPattern")
        return [Run(durations[i], levels[i]) for i in range(min(count.value, MAX_SAMPLES))]

    def sequence_frequency(self, intensities: Sequence[int]) -> Blinking:
        """The blinking in a sequence's intensities; ZeltoComError when there
        is none."""
        samples = self._samples_of(intensities)
        frequency, duty = ctypes.c_float(0), ctypes.c_float(0)
        cycles = ctypes.c_int(0)
        self._check(lib().ZeltoCom_Sequence_GetFrequency(
            self._path, samples, ctypes.byref(frequency), ctypes.byref(duty), ctypes.byref(cycles)),
            "ZeltoCom_Sequence_GetFrequency")
        return Blinking(frequency.value, duty.value, cycles.value)

    def sequence_find_settings(self, fiber: int, min_hz: float, max_hz: float) -> SequenceSettings:
        """Settings that resolve a light blinking between `min_hz` and
        `max_hz`, found with a trial sequence (not stored in the instrument)."""
        capture_time, pause = ctypes.c_uint(0), ctypes.c_uint(0)
        count = ctypes.c_int(0)
        # The trial replaces whatever sequence was set up.
        self._samples = None
        self._check(lib().ZeltoCom_Sequence_FindTestSettings(
            self._path, fiber, min_hz, max_hz, ctypes.byref(capture_time), ctypes.byref(pause),
            ctypes.byref(count)), "ZeltoCom_Sequence_FindTestSettings")
        self._samples = count.value
        return SequenceSettings(capture_time.value, pause.value, count.value)
