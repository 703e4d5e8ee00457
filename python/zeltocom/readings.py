"""What instruments report, as dataclasses."""

from __future__ import annotations

import warnings
from dataclasses import dataclass
from enum import IntEnum
from importlib import resources
from typing import Any, Callable, Mapping, Sequence, get_type_hints

from ._library import ZeltoComError


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
    """One fiber's values after an LED capture."""
    fiber: int
    red: int
    green: int
    blue: int
    intensity: int
    x: float
    y: float
    cct: int
    wavelength: int

    @classmethod
    def parse(cls, fiber: int, answers: Mapping[str, str]) -> "Reading":
        """From the answers to READ_COMMANDS, keyed by command; each number
        of the type its field declares."""
        kinds: dict[str, Callable[[str], Any]] = get_type_hints(cls)
        values: dict[str, Any] = {}
        for command, (_, names) in zip(READ_COMMANDS, READOUTS):
            words = answers[command].split()
            try:
                values.update((name, kinds[name](word)) for name, word in zip(names, words))
            except ValueError:
                words = []
            if len(words) < len(names):
                raise ZeltoComError(f"Unexpected answer to {command % fiber}: {answers[command]!r}")
        return cls(fiber=fiber, **values)


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
            raise ZeltoComError(f"Unexpected answer to GETNFIB: {answer!r}", port=port) from None
    readings: dict[str, list[Reading]] = {port: [] for port in ports}
    for fiber in range(1, max(counts, default=0) + 1):
        having = [port for port, count in zip(ports, counts) if count >= fiber]
        answers = {command: ask(having, command % fiber) for command in READ_COMMANDS}
        for i, port in enumerate(having):
            mine = {command: answers[command][i] for command in READ_COMMANDS}
            readings[port].append(Reading.parse(fiber, mine))
    return readings


def read_fibres(ports: Sequence[str], ask: AskMany) -> dict[str, list[Reading]]:
    """Deprecated spelling of read_fibers."""
    warnings.warn("read_fibres is read_fibers now", DeprecationWarning, stacklevel=2)
    return read_fibers(ports, ask)


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
