"""Many ports at once, and the library's view of the machine's ports."""

from __future__ import annotations

import ctypes
from types import TracebackType
from typing import Iterable, Optional, Sequence, Type

from ._library import (MANY_PORTS, PathLike, ZeltoComError, answer_buffers, check, decode, encode,
                       error_text, int_array, lib, split, text_array)
from ._sizes import DEVICE_PATH_SIZE
from .readings import Reading, read_fibers


def version() -> str:
    """The library's version, "v3.1.0" say."""
    buffer = ctypes.create_string_buffer(32)
    lib().ZeltoCom_GetLibraryVersion(buffer)
    return decode(buffer.value)


def set_trace(destination: Optional[PathLike]) -> None:
    """Sends the library's wire trace (every command and answer of every
    port) to `destination`: "stderr" or a file path (appended to); None or
    "" stops it."""
    target = None if destination is None else encode(str(destination), "trace destination")
    check(lib().ZeltoCom_SetTrace(target), "ZeltoCom_SetTrace")


def ports() -> list[str]:
    """The ports enumerated afresh (those of ZELTOCOM_PORTS when it is set)."""
    count = lib().ZeltoCom_EnumPorts()
    if count <= 0:
        return []
    # Room for more ports than were just counted, should some appear meanwhile.
    buffer = ctypes.create_string_buffer(DEVICE_PATH_SIZE * (2 * count + 16))
    lib().ZeltoCom_ListPortsDetectedTxt(buffer, b";")
    return split(decode(buffer.value))


def opened_ports() -> list[str]:
    """The ports this process has open, in the library's order."""
    buffer = ctypes.create_string_buffer(DEVICE_PATH_SIZE * MANY_PORTS)
    lib().ZeltoCom_GetOpenedPortsS(buffer, ord(";"))
    return split(decode(buffer.value))


def detect(filters: Iterable[str] = (), baud: int = 0) -> list[str]:
    """The enumerated ports that hold an instrument, found by opening each
    at once and closing it again. `filters` (category words such as
    "analyser" or model texts) keep only those instruments; they replace
    the process's detection filters, and none are left afterwards."""
    if isinstance(filters, str):
        filters = [filters]
    count = max(lib().ZeltoCom_EnumPorts(), 0)
    buffer = ctypes.create_string_buffer(DEVICE_PATH_SIZE * (2 * count + 16))
    lib().ZeltoCom_ClearDetectionFilters()
    try:
        for word in filters:
            lib().ZeltoCom_AddDetectionFilter(encode(word, "filter"))
        found = lib().ZeltoCom_DetectS(buffer, b";", baud)
    finally:
        lib().ZeltoCom_ClearDetectionFilters()
    if found < 0:
        check(found, "ZeltoCom_DetectS")
    return split(decode(buffer.value))


class Station:
    """Several ports opened at once (`baud` 0 searches each one's rate) and
    closed together at the end of a `with` block or by `close()`."""

    def __init__(self, paths: Iterable[PathLike], baud: int = 0) -> None:
        self.paths = [str(path) for path in paths]
        self._paths = [encode(path, "device path") for path in self.paths]
        self._open = False
        results = int_array(size=max(len(self.paths), 1))
        result = lib().ZeltoCom_Open_Multi(results, text_array(self._paths), len(self.paths), baud)
        self._raise_first_failure(result, results, self.paths, "ZeltoCom_Open_Multi")
        self._open = True

    def __enter__(self) -> "Station":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"Station({self.paths!r}{'' if self._open else ', closed'})"

    def close(self) -> None:
        """Closes every port of the station; closing again does nothing."""
        if self._open:
            self._open = False
            results = int_array(size=max(len(self.paths), 1))
            lib().ZeltoCom_Close_Multi(results, text_array(self._paths), len(self.paths))

    @staticmethod
    def _raise_first_failure(result: int, results: ctypes.Array[ctypes.c_int],
                             paths: Sequence[str], call: str) -> None:
        if result == 1:
            return
        for index, path in enumerate(paths):
            if results[index] != 1:
                raise ZeltoComError(error_text(path) or error_text(), results[index], path)
        check(result, call)

    def send(self, command: str, paths: Optional[Sequence[str]] = None) -> list[str]:
        """`command` to each port (of `paths`, default all) at once; the
        answers in the ports' order."""
        chosen = self.paths if paths is None else list(paths)
        encoded = [encode(path, "device path") for path in chosen]
        results = int_array(size=max(len(chosen), 1))
        buffers, pointers = answer_buffers(len(chosen))
        commands = text_array([encode(command, "command")] * len(chosen))
        result = lib().ZeltoCom_Send_Multi(results, text_array(encoded), len(chosen), commands,
                                           pointers)
        self._raise_first_failure(result, results, chosen, "ZeltoCom_Send_Multi")
        return [decode(buffer.value) for buffer in buffers]

    def capture(self, range: int = 0, pwm: bool = False,
                frames: int = 0) -> dict[str, list[Reading]]:
        """An LED capture on every open port of the process at once (the
        library's capture of all), then each station port's fiber readings,
        read from all ports at once."""
        opened = opened_ports()
        results = int_array(size=MANY_PORTS)
        result = lib().ZeltoCom_CaptureFromAll(results, int(pwm), range, frames)
        self._raise_first_failure(result, results, opened, "ZeltoCom_CaptureFromAll")
        return read_fibers(self.paths, lambda paths, command: self.send(command, paths))
