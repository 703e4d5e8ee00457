"""Many ports at once, and the library's view of the machine's ports."""

from __future__ import annotations

import ctypes
from concurrent.futures import ThreadPoolExecutor
from types import TracebackType
from typing import Iterable, Optional, Sequence, Type

from ._library import (MANY_PORTS, PathLike, ZeltoComError, answer_buffers, call, decode, encode,
                       error_text, fail, int_array, run, split, text_array, whole)
from ._sizes import DEVICE_PATH_SIZE
from .instrument import Instrument, capture_arguments, linear_readings, port_of_serial
from .readings import Reading, read_fibers


def version() -> str:
    """The library's version, "v3.2.0" say."""
    buffer = ctypes.create_string_buffer(32)
    call("ZeltoCom_GetLibraryVersion", buffer, succeeded=_always)
    return decode(buffer.value)


def set_trace(destination: Optional[PathLike]) -> None:
    """Sends the library's wire trace (every command and answer of every
    port) to `destination`: "stderr" or a file path (appended to); None or
    "" stops it."""
    name = "ZeltoCom_SetTrace"
    target = None if destination is None else encode(destination, "trace destination", name)
    call(name, target, port_text=False)


def set_response_timeout(milliseconds: int) -> None:
    """How long every plain send waits for its answer, counted from the
    last byte received (initially 2500 ms), on every port; the captures of
    a port with automatic time-outs (Instrument.set_automatic_timeouts)
    follow the instrument's settings instead."""
    name = "ZeltoCom_SetResponseTimeout"
    call(name, whole(milliseconds, "time-out", call=name), port_text=False)


def ports() -> list[str]:
    """The ports enumerated afresh (those of ZELTOCOM_PORTS when it is set)."""
    count = call("ZeltoCom_EnumPorts", succeeded=_always)
    if count <= 0:
        return []
    # Room for more ports than were just counted, should some appear meanwhile.
    buffer = ctypes.create_string_buffer(DEVICE_PATH_SIZE * (2 * count + 16))
    call("ZeltoCom_ListPortsDetectedTxt", buffer, b";", succeeded=_always)
    return split(decode(buffer.value))


def opened_ports() -> list[str]:
    """The ports this process has open, in the library's order."""
    buffer = ctypes.create_string_buffer(DEVICE_PATH_SIZE * MANY_PORTS)
    call("ZeltoCom_GetOpenedPortsS", buffer, ord(";"), succeeded=_always)
    return split(decode(buffer.value))


def detect(filters: Iterable[str] = (), baud: int = 0) -> list[str]:
    """The enumerated ports that hold an instrument, found by opening each
    at once and closing it again. `filters` (category words such as
    "analyser" or model texts) keep only those instruments; they replace
    the process's detection filters, and none are left afterwards."""
    name = "ZeltoCom_DetectS"
    if isinstance(filters, str):
        filters = [filters]
    words = [encode(word, "filter", "ZeltoCom_AddDetectionFilter") for word in filters]
    rate = whole(baud, "baud rate", call=name)
    count = max(call("ZeltoCom_EnumPorts", succeeded=_always), 0)
    buffer = ctypes.create_string_buffer(DEVICE_PATH_SIZE * (2 * count + 16))
    call("ZeltoCom_ClearDetectionFilters", succeeded=_always)
    try:
        for word in words:
            call("ZeltoCom_AddDetectionFilter", word, succeeded=_always)
        call(name, buffer, b";", rate, succeeded=lambda found: found >= 0, port_text=False)
    finally:
        call("ZeltoCom_ClearDetectionFilters", succeeded=_always)
    return split(decode(buffer.value))


def _always(result: object) -> bool:
    return True


class Station:
    """Several ports opened at once (`baud` 0 searches each one's rate), or
    by serial number with `by_serials`, and closed together at the end of a
    `with` block or by `close()`. A station works on its own ports only."""

    def __init__(self, paths: Iterable[PathLike], baud: int = 0) -> None:
        name = "ZeltoCom_Open_Multi"
        self._adopt([str(path) for path in paths])
        self._open_all(name, self._paths, self.paths, whole(baud, "baud rate", call=name))

    def _adopt(self, paths: list[str]) -> None:
        self.paths = paths
        self._paths = [encode(path, "device path") for path in self.paths]
        self._open = False

    def _open_all(self, name: str, encoded: Sequence[bytes], names: Sequence[str],
                  baud: int) -> None:
        results = int_array(size=max(len(names), 1))
        # On failure the library's error text is that of the first port that
        # failed, and every port this call opened is closed again.
        result, text = run(name, results, text_array(encoded), len(names), baud, port_text=False)
        if text:
            raise self._failure(name, text, names, results, result)
        self._open = True

    @staticmethod
    def _failure(name: str, text: str, names: Sequence[str], results: ctypes.Array[ctypes.c_int],
                 result: int) -> ZeltoComError:
        """The error of a call for many ports, naming the first that failed."""
        for index, port in enumerate(names):
            if results[index] != 1:
                return fail(text, name, port, results[index])
        return fail(text, name, None, result)

    @classmethod
    def by_serials(cls, serials: Iterable[str], baud: int = 0) -> "Station":
        """Opens at once the instruments with these serial numbers, each
        found among the detected ports; `paths` lists their ports in the
        same order."""
        name = "ZeltoCom_OpenSN_Multi"
        serials = [str(serial) for serial in serials]
        encoded = [encode(serial, "serial number", name) for serial in serials]
        station = cls.__new__(cls)
        station._adopt([])
        station._open_all(name, encoded, serials, whole(baud, "baud rate", call=name))
        station._adopt([port_of_serial(serial) for serial in serials])
        station._open = True
        return station

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
            call("ZeltoCom_Close_Multi", results, text_array(self._paths), len(self.paths),
                 succeeded=_always)

    def send(self, command: str, paths: Optional[Sequence[str]] = None) -> list[str]:
        """`command` to each port (of `paths`, default all) at once; the
        answers in the ports' order."""
        name = "ZeltoCom_Send_Multi"
        chosen = self.paths if paths is None else list(paths)
        encoded = [encode(path, "device path", name) for path in chosen]
        results = int_array(size=max(len(chosen), 1))
        buffers, pointers = answer_buffers(len(chosen))
        commands = text_array([encode(command, "command", name)] * len(chosen))
        result, text = run(name, results, text_array(encoded), len(chosen), commands, pointers,
                           port_text=False)
        if text:
            failed = next((path for i, path in enumerate(chosen) if results[i] != 1), None)
            raise self._failure(name, (error_text(failed) if failed else "") or text, chosen,
                                results, result)
        return [decode(buffer.value) for buffer in buffers]

    def capture(self, range: int = 0, pwm: bool = False,
                frames: int = 0) -> dict[str, list[Reading]]:
        """An LED capture on each of the station's ports at once, then each
        port's fiber readings, read from all ports at once. A failure names
        the first port, in the station's order, that failed."""
        name = "ZeltoCom_Capture"
        arguments = capture_arguments(range, pwm, frames, name)

        def capture_one(path: str, encoded: bytes) -> None:
            call(name, encoded, *arguments, port=path)

        # ctypes lets go of the interpreter during each call: the captures
        # run side by side, one thread per port as the library's own calls
        # for many ports do.
        with ThreadPoolExecutor(max_workers=max(1, min(len(self.paths), 64))) as pool:
            running = [pool.submit(capture_one, path, encoded)
                       for path, encoded in zip(self.paths, self._paths)]
        for each in running:
            each.result()
        readings = read_fibers(self.paths, lambda paths, command: self.send(command, paths))
        return {path: linear_readings(path, each, range, pwm) for path, each in readings.items()}
