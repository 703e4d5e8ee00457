"""What instruments report, as dataclasses."""

from __future__ import annotations

from dataclasses import dataclass
from enum import IntEnum
from typing import Any, Callable, Mapping, Sequence

from ._library import ZeltoComError

# The commands that read one fibre after a capture ("%02d": the fibre).
READ_COMMANDS = ("GETRGBI%02d", "GETxy%02d", "GETINTENSITY%02d", "GETCCT%02d",
                 "GETWAVELENGTH%02d")


@dataclass(frozen=True)
class Reading:
    """One fibre's values after an LED capture."""
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
        """From the answers to READ_COMMANDS, keyed by command."""
        def numbers(command: str, kind: Callable[[str], Any], count: int) -> list[Any]:
            words = answers[command].split()
            try:
                values = [kind(word) for word in words[:count]]
            except ValueError:
                values = []
            if len(values) < count:
                raise ZeltoComError(f"Unexpected answer to {command % fiber}: {answers[command]!r}")
            return values

        red, green, blue = numbers(READ_COMMANDS[0], int, 3)
        x, y = numbers(READ_COMMANDS[1], float, 2)
        (intensity,) = numbers(READ_COMMANDS[2], int, 1)
        (cct,) = numbers(READ_COMMANDS[3], int, 1)
        (wavelength,) = numbers(READ_COMMANDS[4], int, 1)
        return cls(fiber, red, green, blue, intensity, x, y, cct, wavelength)


# Sends one command to each of the given ports; the answers in their order.
AskMany = Callable[[Sequence[str], str], Sequence[str]]


def read_fibres(ports: Sequence[str], ask: AskMany) -> dict[str, list[Reading]]:
    """Every fibre's reading on each port, each command asked of all ports
    at once: "GETNFIB", then READ_COMMANDS per fibre."""
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
