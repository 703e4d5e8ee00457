"""Loading libzeltocom.so, the prototypes of the calls wrapped, and turning
result codes into ZeltoComError."""

from __future__ import annotations

import ctypes
import ctypes.util
import os
import threading
from pathlib import Path
from typing import Iterable, Iterator, Optional, Sequence, Union

from ._sizes import ANSWER_SIZE, ERROR_TEXT_SIZE
from ._version import __version__

PathLike = Union[str, "os.PathLike[str]"]

# The SONAME's major version this package speaks to.
LIBRARY_MAJOR = int(__version__.split(".")[0])

# The library fills per-open-port arrays without telling their count first;
# no station has this many ports.
MANY_PORTS = 4096
# The longest sequence an instrument runs.
MAX_SAMPLES = 9999

_int_p = ctypes.POINTER(ctypes.c_int)
_uint_p = ctypes.POINTER(ctypes.c_uint)
_float_p = ctypes.POINTER(ctypes.c_float)
_texts = ctypes.POINTER(ctypes.c_char_p)  # const char* const*
_buffers = ctypes.POINTER(ctypes.c_void_p)  # char** the library writes into
_s, _i, _u, _f = ctypes.c_char_p, ctypes.c_int, ctypes.c_uint, ctypes.c_float

_PROTOTYPES: dict[str, tuple[object, list[object]]] = {
    "ZeltoCom_GetError_Description": (_s, [_s]),
    "ZeltoCom_GetError_DescriptionByPort": (_s, [_s, _s]),
    "ZeltoCom_GetLibraryVersion": (None, [_s]),
    "ZeltoCom_SetTrace": (_i, [_s]),
    "ZeltoCom_EnumPorts": (_i, []),
    "ZeltoCom_ListPortsDetectedTxt": (_i, [_s, _s]),
    "ZeltoCom_GetOpenedPortsS": (_i, [_s, _i]),
    "ZeltoCom_DetectS": (_i, [_s, ctypes.c_char, _i]),
    "ZeltoCom_AddDetectionFilter": (None, [_s]),
    "ZeltoCom_ClearDetectionFilters": (None, []),
    "ZeltoCom_Open": (_i, [_s, _i]),
    "ZeltoCom_Close": (_i, [_s]),
    "ZeltoCom_GetSNByPort": (_i, [_s, _s]),
    "ZeltoCom_GetBaudrate": (_i, [_s]),
    "ZeltoCom_GetDeviceType": (_i, [_s, _s]),
    "ZeltoCom_Send": (_i, [_s, _s, _s]),
    "ZeltoCom_GetResponseByPort": (_i, [_s, _s]),
    "ZeltoCom_Capture": (_i, [_s, _i, _i, _i]),
    "ZeltoCom_SpectrometerCapture": (_i, [_s, _i, _i, _f]),
    "ZeltoCom_SpectrometerDark": (_i, [_s, _i, _i, _f]),
    "ZeltoCom_DaisyChain_Add": (_i, [_s, _s]),
    "ZeltoCom_DaisyChain_Send": (_i, [_s, _s, _s, _s]),
    "ZeltoCom_DaisyChain_Capture": (_i, [_s, _i, _i, _i]),
    "ZeltoCom_Open_Multi": (_i, [_int_p, _texts, _i, _i]),
    "ZeltoCom_Close_Multi": (_i, [_int_p, _texts, _i]),
    "ZeltoCom_Send_Multi": (_i, [_int_p, _texts, _i, _texts, _buffers]),
    "ZeltoCom_CaptureFromAll": (_i, [_int_p, _i, _i, _i]),
    "ZeltoCom_ExternalTrigger_Enable": (_i, [_s, _i, _i, _s, _u, _u, _i]),
    "ZeltoCom_ExternalTrigger_Disable": (_i, [_s, _i]),
    "ZeltoCom_ExternalTrigger_Listen": (_i, [_s]),
    "ZeltoCom_ExternalTrigger_Abort": (_i, [_s]),
    "ZeltoCom_ExternalTrigger_isFinished": (_i, [_s]),
    "ZeltoCom_Sequence_Setup": (_i, [_s, _u, _u, _u, _i, _i]),
    "ZeltoCom_Sequence_Capture": (_i, [_s, _i]),
    "ZeltoCom_Sequence_ReadIntensity": (_i, [_s, _i, _int_p]),
    "ZeltoCom_Sequence_GetPattern": (_i, [_s, _int_p, _int_p, _int_p, _int_p]),
    "ZeltoCom_Sequence_GetFrequency": (_i, [_s, _int_p, _float_p, _float_p, _int_p]),
    "ZeltoCom_Sequence_FindTestSettings": (_i, [_s, _i, _f, _f, _uint_p, _uint_p, _int_p]),
}


class ZeltoComError(Exception):
    """A call the library refused or an instrument failed; `text` is the
    library's error text, `result` the call's result code (0 or -1, None
    where the failure is this package's own)."""

    __module__ = "zeltocom"

    def __init__(self, text: str, result: Optional[int] = None,
                 port: Optional[str] = None) -> None:
        super().__init__(text)
        self.text = text
        self.result = result
        self.port = port


def _candidates() -> Iterator[str]:
    override = os.environ.get("ZELTOCOM_LIBRARY")
    if override:
        yield override
        return
    here = Path(__file__).resolve().parent
    for beside in (here / "libzeltocom.so", here / f"libzeltocom.so.{LIBRARY_MAJOR}"):
        if beside.exists():
            yield str(beside)
    # By name first: the dynamic loader's own search is free, while
    # find_library runs ldconfig and may start a compiler.
    yield f"libzeltocom.so.{LIBRARY_MAJOR}"
    system = ctypes.util.find_library("zeltocom")
    if system:
        yield system


def _load() -> ctypes.CDLL:
    tried = []
    for candidate in _candidates():
        try:
            library = ctypes.CDLL(candidate)
        except OSError as error:
            tried.append(f"{candidate} ({error})")
            continue
        missing = [name for name in _PROTOTYPES if not hasattr(library, name)]
        if missing:
            tried.append(f"{candidate} (lacks {', '.join(missing)})")
            continue
        for name, (restype, argtypes) in _PROTOTYPES.items():
            function = getattr(library, name)
            function.restype = restype
            function.argtypes = argtypes
        return library
    raise ZeltoComError("No usable libzeltocom.so; set ZELTOCOM_LIBRARY to its path. Tried: "
                        + "; ".join(tried))


_library: Optional[ctypes.CDLL] = None
_loading = threading.Lock()


def lib() -> ctypes.CDLL:
    """The loaded library, loaded on first use so that importing the package
    never fails."""
    global _library
    with _loading:
        if _library is None:
            _library = _load()
        return _library


def encode(text: Union[str, "os.PathLike[str]"], what: str) -> bytes:
    data = os.fsencode(text)
    # A NUL would silently cut the text short on the C side.
    if b"\0" in data:
        raise ZeltoComError(f"The {what} contains a NUL character")
    return data


def decode(data: bytes) -> str:
    return data.decode("utf-8", errors="replace")


def error_text(port: Optional[str] = None) -> str:
    buffer = ctypes.create_string_buffer(ERROR_TEXT_SIZE)
    if port is None:
        lib().ZeltoCom_GetError_Description(buffer)
    else:
        lib().ZeltoCom_GetError_DescriptionByPort(encode(port, "device path"), buffer)
    return decode(buffer.value)


def check(result: int, call: str, port: Optional[str] = None) -> int:
    """`result` when it is 1, else a ZeltoComError with the port's error text."""
    if result == 1:
        return result
    text = error_text(port) or f"{call} returned {result}"
    raise ZeltoComError(text, result, port)


def text_array(texts: Sequence[bytes]) -> ctypes.Array[ctypes.c_char_p]:
    return (ctypes.c_char_p * max(len(texts), 1))(*texts)


def answer_buffers(count: int) -> tuple[list[ctypes.Array[ctypes.c_char]],
                                        ctypes.Array[ctypes.c_void_p]]:
    """Buffers for `count` answers and the array of pointers to them; keep
    the buffers alive while the array is in use."""
    buffers = [ctypes.create_string_buffer(ANSWER_SIZE) for _ in range(count)]
    pointers = (ctypes.c_void_p * max(count, 1))(*[ctypes.addressof(b) for b in buffers])
    return buffers, pointers


def int_array(values: Iterable[int] = (), size: int = MAX_SAMPLES) -> ctypes.Array[ctypes.c_int]:
    array = (ctypes.c_int * size)()
    for index, value in enumerate(values):
        array[index] = value
    return array


def split(text: str, separator: str = ";") -> list[str]:
    return [field for field in text.split(separator) if field]
