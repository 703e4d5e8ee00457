"""Project files (a station's instruments by ID) and bin files (areas of the
chromaticity chart, extension .vec)."""

from __future__ import annotations

import ctypes
import os
from types import TracebackType
from typing import Optional, Type

from ._library import PathLike, call, decode, encode, real
from ._sizes import ANSWER_SIZE, DEVICE_PATH_SIZE
from .instrument import Instrument


class Project:
    """The instruments of a project file, opened together on construction
    and closed by `close()` or at the end of a `with` block; each is
    addressed by its ID. The library keeps one project: opening another
    replaces it, and the IDs stay known after closing."""

    def __init__(self, path: PathLike) -> None:
        self.path = str(path)
        name = "ZeltoCom_OpenProject"
        call(name, encode(path, "project file path", name), port_text=False)
        self._open = True

    def __enter__(self) -> "Project":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"Project({self.path!r}{'' if self._open else ', closed'})"

    def close(self) -> None:
        """Closes the project's instruments; closing again does nothing."""
        if self._open:
            self._open = False
            call("ZeltoCom_CloseProject", port_text=False)

    def knows(self, device_id: str) -> bool:
        """Whether a project file named the device ID `device_id`."""
        name = "ZeltoCom_OpenID"
        return bool(call(name, encode(device_id, "device ID", name), port=device_id,
                         succeeded=lambda result: True) == 1)

    def port(self, device_id: str) -> str:
        """The path of the port of the device `device_id`."""
        name = "ZeltoCom_GetPortByID"
        buffer = ctypes.create_string_buffer(DEVICE_PATH_SIZE + 1)
        call(name, encode(device_id, "device ID", name), buffer, port=device_id,
             succeeded=lambda result: bool(buffer.value), port_text=False)
        return decode(buffer.value)

    def send(self, device_id: str, command: str) -> str:
        """The answer of the device `device_id` to `command` (whichever
        instrument holds its port's line answers)."""
        name = "ZeltoCom_SendByID"
        answer = ctypes.create_string_buffer(ANSWER_SIZE)
        call(name, encode(device_id, "device ID", name), encode(command, "command", name), answer,
             port=device_id, port_text=False)
        return decode(answer.value)

    def instrument(self, device_id: str) -> Instrument:
        """The device `device_id` as an Instrument (its port opened by the
        project; the Instrument's close() closes it)."""
        return Instrument.of_open_port(self.port(device_id))


def _room(path: PathLike) -> int:
    """Room for any text a bin file yields: no name is longer than the file."""
    try:
        return os.path.getsize(path) + 1
    except (OSError, TypeError, ValueError):
        return 1  # the library says what is wrong with the path


def find_bin(path: PathLike, x: float, y: float) -> Optional[str]:
    """The name of the first bin of the bin file at `path` that holds the
    chromaticity point (`x`, `y`), inside or on an edge; None when no bin
    does."""
    name = "ZeltoCom_Binning_FindBin"
    room = _room(path)
    buffer = ctypes.create_string_buffer(room)
    found = call(name, encode(path, "bin file path", name), buffer, room, real(x, "x", name),
                 real(y, "y", name), succeeded=lambda result: result >= 0, port_text=False)
    return decode(buffer.value) if found == 1 else None


def bin_of(path: PathLike, x: float, y: float) -> Optional[str]:
    """The bin the established rule puts the point (`x`, `y`) in: the first
    whose edges the segment from (0, 0) to the point crosses once, vertical
    edges not counted. It misjudges some shapes (see check_bins); find_bin
    does not. None when no bin takes the point."""
    name = "ZeltoCom_Binning_GetBinFromVECFile"
    # Twice the room: should the file grow meanwhile, this call has no size.
    buffer = ctypes.create_string_buffer(2 * _room(path) + 256)
    found = call(name, encode(path, "bin file path", name), buffer, real(x, "x", name),
                 real(y, "y", name), succeeded=lambda result: result >= 0, port_text=False)
    return decode(buffer.value) if found == 1 else None


def check_bins(path: PathLike) -> list[str]:
    """The bins of the file whose shape the rule of bin_of may misjudge,
    one line each: "NAME: reason; reason"."""
    name = "ZeltoCom_Binning_CheckVECFile"
    # A bin takes a line of 6 characters or more; its report line is its
    # name and at most five reasons.
    room = 64 * _room(path) + 4096
    buffer = ctypes.create_string_buffer(room)
    call(name, encode(path, "bin file path", name), buffer, room,
         succeeded=lambda result: result >= 0, port_text=False)
    return decode(buffer.value).splitlines()


def bins(path: PathLike) -> list[tuple[str, list[tuple[float, float]]]]:
    """The bins of the bin file at `path` in file order, as the library reads
    them: each its name and its polygon's corners (x, y), for drawing."""
    name = "ZeltoCom_Binning_ListBins"
    # The list grows past the file where it writes a float's shortest digits.
    room = 4 * _room(path) + 4096
    while True:
        buffer = ctypes.create_string_buffer(room)
        call(name, encode(path, "bin file path", name), buffer, room,
             succeeded=lambda result: result >= 0, port_text=False)
        if len(buffer.value) + 1 < room:
            break
        room *= 4
    listed = []
    for line in decode(buffer.value).split("\n"):
        bin_name, _, corners = line.partition("=")
        listed.append((bin_name, [(float(x), float(y)) for x, y in
                                  (corner.split(",") for corner in corners.split(";"))]))
    return listed
