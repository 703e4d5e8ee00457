"""What instruments report, as dataclasses."""

from __future__ import annotations

import ctypes
import warnings
from dataclasses import dataclass, replace
from enum import IntEnum
from importlib import resources
from typing import Any, Callable, Mapping, Optional, Sequence, get_args, get_type_hints

from ._library import ZeltoComError, fail


def _readouts(text: str) -> tuple[tuple[str, tuple[str, ...]], ...]:
    """The readout commands of a capture_readings.txt and the names of the
    numbers each answer holds, in their order."""
    lines = [line.split() for line in text.splitlines()]
    return tuple((words[0], tuple(words[1:])) for words in lines if words and words[0][0] != "#")


# What is read of each fiber after a capture, shared with the zeltocom tool.
READOUTS = _readouts(resources.files(__package__).joinpath("capture_readings.txt")
                     .read_text(encoding="ascii"))
# The same commands for one fiber ("%02d": the fiber).
READ_COMMANDS = tuple(command + "%02d" for command, _ in READOUTS)


@dataclass(frozen=True)
class Reading:
    """One fiber's values at one moment: after an LED capture (every field
    but `hue`, `saturation` and `absolute_intensity`) or in a trigger report
    (the fields of its output type); a field not reported is None."""
    fiber: int
    red: Optional[int] = None
    green: Optional[int] = None
    blue: Optional[int] = None
    intensity: Optional[int] = None
    x: Optional[float] = None
    y: Optional[float] = None
    cct: Optional[int] = None
    wavelength: Optional[int] = None
    hue: Optional[float] = None
    saturation: Optional[float] = None
    absolute_intensity: Optional[float] = None
    # After a capture `intensity` is linear; these keep what the instrument
    # reported and on which scale ("logarithmic" or "linear").
    intensity_raw: Optional[int] = None
    intensity_scale: Optional[str] = None

    @classmethod
    def parse(cls, fiber: int, answers: Mapping[str, str]) -> "Reading":
        """From the answers to READ_COMMANDS, keyed by command; each number
        of the type its field declares."""
        values: dict[str, Any] = {}
        for command, (_, names) in zip(READ_COMMANDS, READOUTS):
            values.update(_numbers(names, answers[command], command % fiber))
        return cls(fiber=fiber, **values)


def _kinds(of: type) -> dict[str, Callable[[str], Any]]:
    """The number type of each field of a dataclass: int for Optional[int]."""
    kinds = {}
    for name, hint in get_type_hints(of).items():
        arguments = [kind for kind in get_args(hint) if kind is not type(None)]
        kinds[name] = arguments[0] if arguments else hint
    return kinds


_READING_KINDS = _kinds(Reading)


def _numbers(names: Sequence[str], answer: str, what: str) -> dict[str, Any]:
    """The first numbers of `answer` by name, each of its Reading field's
    type; a ZeltoComError naming `what` when they do not all read."""
    words = answer.split()
    try:
        values = {name: _READING_KINDS[name](word) for name, word in zip(names, words)}
    except ValueError:
        values = {}
    if len(values) < len(names):
        raise ZeltoComError(f"Unexpected answer to {what}: {answer!r}")
    return values


# What a trigger report holds of each fiber, by output type, in the order
# of its numbers; "NONE" reports a bare "OK".
TRIGGER_REPORTS: dict[str, tuple[str, ...]] = {
    "NONE": (),
    "XYI": ("x", "y", "intensity"),
    "HSI": ("hue", "saturation", "intensity"),
    "RGBI": ("red", "green", "blue", "intensity"),
    "CCTI": ("cct", "intensity"),
    "ABSINT": ("absolute_intensity",),
    "WSI": ("wavelength", "saturation", "intensity"),
}


def parse_report(output: str, report: str) -> list[Reading]:
    """A trigger report of the output type `output`: a Reading per line (the
    first line fiber 1), none for "NONE"'s acknowledgement."""
    names = TRIGGER_REPORTS.get(output.strip().upper())
    if names is None:
        raise ZeltoComError(f"Unknown trigger output type {output!r}")
    if not names:
        return []
    lines = [line for line in report.splitlines() if line.strip()]
    return [Reading(fiber=fiber, **_numbers(names, line, f"the trigger (fiber {fiber})"))
            for fiber, line in enumerate(lines, 1)]


# Sends one command to each of the given ports; the answers in their order.
AskMany = Callable[[Sequence[str], str], Sequence[str]]


def read_fibers(ports: Sequence[str], ask: AskMany) -> dict[str, list[Reading]]:
    """Every fiber's reading on each port, each command asked of all ports
    at once: "GETNFIB", then READ_COMMANDS per fiber."""
    counts = []
    for port, answer in zip(ports, ask(ports, "GETNFIB")):
        try:
            counts.append(int(answer))
        except ValueError:
            raise fail(f"Unexpected answer to GETNFIB: {answer!r}", port=port) from None
    readings: dict[str, list[Reading]] = {port: [] for port in ports}
    for fiber in range(1, max(counts, default=0) + 1):
        having = [port for port, count in zip(ports, counts) if count >= fiber]
        answers = {command: ask(having, command % fiber) for command in READ_COMMANDS}
        for i, port in enumerate(having):
            mine = {command: answers[command][i] for command in READ_COMMANDS}
            try:
                readings[port].append(Reading.parse(fiber, mine))
            except ZeltoComError as error:
                raise fail(error.text, port=port) from None
    return readings


def in_linear_intensity(readings: Sequence[Reading], scale: str,
                        to_linear: Callable[[int], int]) -> list[Reading]:
    """The readings with their intensity made linear, the reported value
    and its scale kept."""
    return [reading if reading.intensity is None else
            replace(reading, intensity=to_linear(reading.intensity),
                    intensity_raw=reading.intensity, intensity_scale=scale)
            for reading in readings]


def read_fibres(ports: Sequence[str], ask: AskMany) -> dict[str, list[Reading]]:
    """Deprecated spelling of read_fibers."""
    warnings.warn("read_fibres is read_fibers now", DeprecationWarning, stacklevel=2)
    return read_fibers(ports, ask)


# A column of a sequence: a list, or a numpy array of the C type.
Column = Any


@dataclass(frozen=True)
class Samples:
    """One fiber's values over a sequence, a column per number, element i
    the i-th sample's; a column the readout does not give is None. Columns
    are lists, or numpy arrays of the instrument's C types (int32, float32,
    uint8 for red, green and blue) when read with `as_numpy=True`. A sample
    whose line did not read stays 0."""
    fiber: int
    intensity: Optional[Column] = None
    x: Optional[Column] = None
    y: Optional[Column] = None
    hue: Optional[Column] = None
    saturation: Optional[Column] = None
    red: Optional[Column] = None
    green: Optional[Column] = None
    blue: Optional[Column] = None
    cct: Optional[Column] = None
    cct_second: Optional[Column] = None
    wavelength: Optional[Column] = None


def numpy_module(call: Optional[str] = None) -> Any:
    """numpy, or a ZeltoComError saying that it is missing."""
    try:
        import numpy
    except ImportError:
        raise fail("as_numpy needs numpy (Debian: python3-numpy)", call) from None
    return numpy


def float32(value: float) -> float:
    """A C float as the shortest Python float that reads back as it: 0.3288,
    not 0.32879999279975891."""
    for digits in range(6, 9):
        shorter = float(f"{value:.{digits}g}")
        if ctypes.c_float(shorter).value == value:
            return shorter
    return value


def column(array: ctypes.Array[Any], count: int, as_numpy: bool) -> Column:
    """The first `count` elements of a C array, as a list or a numpy array."""
    if as_numpy:
        return numpy_module().ctypeslib.as_array(array)[:count].copy()
    values = array[:count]
    return [float32(value) for value in values] if array._type_ is ctypes.c_float else values


@dataclass(frozen=True)
class Run:
    """A stretch of a sequence at one level: lit or dark."""
    duration_ms: int
    level: int


@dataclass(frozen=True)
class Blinking:
    """A blinking light measured over a sequence's complete cycles."""
    frequency: float
    duty_cycle: float
    cycles: int


@dataclass(frozen=True)
class SequenceSettings:
    """Settings that resolve a blinking light, for Instrument.sequence_setup."""
    capture_time: int
    time_between_captures: int
    sample_count: int


class TriggerState(IntEnum):
    """What ZeltoCom_ExternalTrigger_isFinished says of a listener."""
    LISTENING = 0
    FINISHED = 1
    FAILED = -1
    ENDED = -2
