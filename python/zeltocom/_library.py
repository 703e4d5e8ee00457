"""Loading libzeltocom.so, the prototypes of the calls wrapped, calling
them (logged, failures turned into ZeltoComError with the library's text)
and the numbers they take."""

from __future__ import annotations

import ctypes
import ctypes.util
import logging
import math
import numbers
import operator
import os
import threading
import time
from pathlib import Path
from typing import Any, Callable, Iterable, Iterator, Optional, Sequence, Union

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
_double_p = ctypes.POINTER(ctypes.c_double)
_ubyte_p = ctypes.POINTER(ctypes.c_ubyte)
_texts = ctypes.POINTER(ctypes.c_char_p)  # const char* const*
_buffers = ctypes.POINTER(ctypes.c_void_p)  # char** the library writes into
_s, _i, _u, _f, _d = ctypes.c_char_p, ctypes.c_int, ctypes.c_uint, ctypes.c_float, ctypes.c_double

_PROTOTYPES: dict[str, tuple[object, list[object]]] = {
    "ZeltoCom_GetError_Description": (_s, [_s]),
    "ZeltoCom_GetError_DescriptionByPort": (_s, [_s, _s]),
    "ZeltoCom_GetLibraryVersion": (None, [_s]),
    "ZeltoCom_SetTrace": (_i, [_s]),
    "ZeltoCom_EnumPorts": (_i, []),
    "ZeltoCom_ListPortsDetectedTxt": (_i, [_s, _s]),
    "ZeltoCom_GetOpenedPortsS": (_i, [_s, _i]),
    "ZeltoCom_GetPortBySN": (_i, [_s, _s]),
    "ZeltoCom_GetPortByID": (_s, [_s, _s]),
    "ZeltoCom_DetectS": (_i, [_s, ctypes.c_char, _i]),
    "ZeltoCom_AddDetectionFilter": (None, [_s]),
    "ZeltoCom_ClearDetectionFilters": (None, []),
    "ZeltoCom_Open": (_i, [_s, _i]),
    "ZeltoCom_OpenSN": (_i, [_s, _i]),
    "ZeltoCom_OpenID": (_i, [_s]),
    "ZeltoCom_Close": (_i, [_s]),
    "ZeltoCom_GetSNByPort": (_i, [_s, _s]),
    "ZeltoCom_GetBaudrate": (_i, [_s]),
    "ZeltoCom_GetDeviceType": (_i, [_s, _s]),
    "ZeltoCom_Send": (_i, [_s, _s, _s]),
    "ZeltoCom_SendByID": (_i, [_s, _s, _s]),
    "ZeltoCom_SetResponseTimeout": (_i, [_i]),
    "ZeltoCom_SetResponseTimeoutAuto": (_i, [_s, _i]),
    "ZeltoCom_GetResponseByPort": (_i, [_s, _s]),
    "ZeltoCom_Capture": (_i, [_s, _i, _i, _i]),
    "ZeltoCom_SpectrometerCapture": (_i, [_s, _i, _i, _f]),
    "ZeltoCom_SpectrometerDark": (_i, [_s, _i, _i, _f]),
    "ZeltoCom_DaisyChain_Add": (_i, [_s, _s]),
    "ZeltoCom_DaisyChain_Send": (_i, [_s, _s, _s, _s]),
    "ZeltoCom_DaisyChain_Capture": (_i, [_s, _i, _i, _i]),
    "ZeltoCom_OpenProject": (_i, [_s]),
    "ZeltoCom_CloseProject": (_i, []),
    "ZeltoCom_Binning_GetBinFromVECFile": (_i, [_s, _s, _f, _f]),
    "ZeltoCom_Binning_FindBin": (_i, [_s, _s, _i, _f, _f]),
    "ZeltoCom_Binning_CheckVECFile": (_i, [_s, _s, _i]),
    "ZeltoCom_Open_Multi": (_i, [_int_p, _texts, _i, _i]),
    "ZeltoCom_OpenSN_Multi": (_i, [_int_p, _texts, _i, _i]),
    "ZeltoCom_Close_Multi": (_i, [_int_p, _texts, _i]),
    "ZeltoCom_Send_Multi": (_i, [_int_p, _texts, _i, _texts, _buffers]),
    "ZeltoCom_UserCal_ResetRGBAdj": (_i, [_s, _i]),
    "ZeltoCom_UserCal_TakeRGBCurrentValues": (_i, [_s, _i, ctypes.c_char]),
    "ZeltoCom_UserCal_AdjustRGB": (_i, [_s, _i, _f, _f, _d, _f, _f, _d, _f, _f, _d]),
    "ZeltoCom_UserCal_ResetxyOffsets": (_i, [_s, _i]),
    "ZeltoCom_UserCal_GetxyOffsets": (_i, [_s, _i, _float_p, _float_p]),
    "ZeltoCom_UserCal_SetxyOffsets": (_i, [_s, _i, _f, _f, _i]),
    "ZeltoCom_UserCal_AdjustxyOffsets": (_i, [_s, _i, _f, _f]),
    "ZeltoCom_UserCal_ResetWavelengthOffset": (_i, [_s, _i]),
    "ZeltoCom_UserCal_GetWavelengthOffset": (_i, [_s, _i, _int_p]),
    "ZeltoCom_UserCal_SetWavelengthOffset": (_i, [_s, _i, _i, _i]),
    "ZeltoCom_UserCal_AdjustWavelengthOffset": (_i, [_s, _i, _i]),
    "ZeltoCom_UserCal_ResetIntensityGain": (_i, [_s, _i]),
    "ZeltoCom_UserCal_GetIntensityGain": (_i, [_s, _i, _int_p]),
    "ZeltoCom_IntensityToLinear": (_i, [_s, _i, _i, _i, _int_p]),
    "ZeltoCom_IntensityToLog": (_i, [_s, _i, _i, _i, _int_p]),
    "ZeltoCom_GetIntensityScale": (_i, [_s, _int_p]),
    "ZeltoCom_UserCal_SetIntensityGain": (_i, [_s, _i, _i, _i]),
    "ZeltoCom_UserCal_AdjustIntensityGain": (_i, [_s, _i, _i]),
    "ZeltoCom_UserCal_ResetAbsIntFactor": (_i, [_s, _i]),
    "ZeltoCom_UserCal_GetAbsIntFactor": (_i, [_s, _i, _double_p]),
    "ZeltoCom_UserCal_SetAbsIntFactor": (_i, [_s, _i, _d, _i]),
    "ZeltoCom_UserCal_AdjustAbsIntFactor": (_i, [_s, _i, _d]),
    "ZeltoCom_ExternalTrigger_Enable": (_i, [_s, _i, _i, _s, _u, _u, _i]),
    "ZeltoCom_ExternalTrigger_Disable": (_i, [_s, _i]),
    "ZeltoCom_ExternalTrigger_Listen": (_i, [_s]),
    "ZeltoCom_ExternalTrigger_Abort": (_i, [_s]),
    "ZeltoCom_ExternalTrigger_isFinished": (_i, [_s]),
    "ZeltoCom_Sequence_Setup": (_i, [_s, _u, _u, _u, _i, _i]),
    "ZeltoCom_Sequence_Capture": (_i, [_s, _i]),
    "ZeltoCom_Sequence_ReadIntensity": (_i, [_s, _i, _int_p]),
    "ZeltoCom_Sequence_ReadxyI": (_i, [_s, _i, _float_p, _float_p, _int_p]),
    "ZeltoCom_Sequence_ReadHSI": (_i, [_s, _i, _float_p, _int_p, _int_p]),
    "ZeltoCom_Sequence_ReadRGBI": (_i, [_s, _i, _ubyte_p, _ubyte_p, _ubyte_p, _int_p]),
    "ZeltoCom_Sequence_ReadCCT": (_i, [_s, _i, _int_p, _float_p]),
    "ZeltoCom_Sequence_ReadWavelength": (_i, [_s, _i, _int_p]),
    "ZeltoCom_Sequence_GetPattern": (_i, [_s, _int_p, _int_p, _int_p, _int_p]),
    "ZeltoCom_Sequence_GetFrequency": (_i, [_s, _int_p, _float_p, _float_p, _int_p]),
    "ZeltoCom_Sequence_FindTestSettings": (_i, [_s, _i, _f, _f, _uint_p, _uint_p, _int_p]),
}


class ZeltoComError(Exception):
    """A call the library refused, an instrument that failed, or an argument
    this package refused. `text` is the library's error text (or this
    package's), `call` the function that failed, `port` the port's path (or
    the serial number or project ID it was addressed by), `result` the
    call's result code (None where the failure is this package's own).
    str() shows the call, the port and the text."""

    __module__ = "zeltocom"

    def __init__(self, text: str, result: Optional[int] = None,
                 port: Optional[str] = None, call: Optional[str] = None) -> None:
        super().__init__(text)
        self.text = text
        self.result = result
        self.port = port
        self.call = call

    def __str__(self) -> str:
        where = " on ".join(part for part in (self.call, self.port) if part)
        return f"{where}: {self.text}" if where else self.text

    def __reduce__(self) -> tuple[object, ...]:
        return type(self), (self.text, self.result, self.port, self.call)


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


# Each call at DEBUG, each failure at WARNING; silent until the host
# configures logging.
log = logging.getLogger("zeltocom")
log.addHandler(logging.NullHandler())


def fail(text: str, call: Optional[str] = None, port: Optional[str] = None,
         result: Optional[int] = None) -> ZeltoComError:
    """The error to raise, logged at WARNING."""
    error = ZeltoComError(text, result, port, call)
    log.warning("%s", error)
    return error


def encode(text: Union[str, "os.PathLike[str]"], what: str, call: Optional[str] = None) -> bytes:
    """`text` as the library takes it: bytes without a NUL."""
    try:
        data = os.fsencode(text)
    except TypeError:
        raise fail(f"The {what} must be a text, not {text!r}", call) from None
    # A NUL would silently cut the text short on the C side.
    if b"\0" in data:
        raise fail(f"The {what} contains a NUL character", call)
    return data


def decode(data: bytes) -> str:
    """A text the library wrote."""
    return data.decode("utf-8", errors="replace")


def error_text(port: Optional[str] = None) -> str:
    """The library's last error text, or the last of the open port `port`."""
    buffer = ctypes.create_string_buffer(ERROR_TEXT_SIZE)
    if port is None:
        lib().ZeltoCom_GetError_Description(buffer)
    else:
        lib().ZeltoCom_GetError_DescriptionByPort(encode(port, "device path"), buffer)
    return decode(buffer.value)


# ---- numbers ----

INT_MIN, INT_MAX, UINT_MAX = -2**31, 2**31 - 1, 2**32 - 1


def whole(value: object, what: str, low: int = INT_MIN, high: int = INT_MAX,
          call: Optional[str] = None) -> int:
    """`value` as an int between `low` and `high`: an int, a numpy integer, or
    a float (numpy's too) that holds a whole number."""
    try:
        number = operator.index(value)  # type: ignore[arg-type]
    except TypeError:
        if not isinstance(value, numbers.Real) or not float(value).is_integer():
            raise fail(f"The {what} must be a whole number, not {value!r}", call) from None
        number = int(value)
    if not low <= number <= high:
        raise fail(f"The {what} must be between {low} and {high}, not {number}", call)
    return number


def real(value: object, what: str, call: Optional[str] = None) -> float:
    """`value` as a finite float: an int, a float, or a numpy number."""
    try:
        number = float(value) if isinstance(value, numbers.Real) else math.nan
    except OverflowError:
        number = math.inf
    if not math.isfinite(number):
        raise fail(f"The {what} must be a finite number, not {value!r}", call)
    return number


# ---- calls ----

class _Calls:
    """Which calls run at once. The library's last error is a failed call's
    own only when no other call ran beside it; else the port's is read."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._running = 0
        self._started = 0

    def begin(self) -> tuple[int, bool]:
        with self._lock:
            self._running += 1
            self._started += 1
            return self._started, self._running == 1

    def end(self, token: tuple[int, bool], failed: bool, port: Optional[str],
            port_text: bool) -> str:
        """The failed call's error text ("" when it did not fail), read
        before any other call may start."""
        with self._lock:
            self._running -= 1
            if not failed:
                return ""
            alone = token[1] and self._started == token[0]
            return error_text(port if port_text and port and not alone else None)


_calls = _Calls()


def _is_one(result: object) -> bool:
    return result == 1


def _shown(argument: object) -> str:
    if isinstance(argument, bytes):
        return repr(decode(argument))
    if isinstance(argument, ctypes._SimpleCData):
        return repr(argument.value)
    if isinstance(argument, (int, float)) or argument is None:
        return repr(argument)
    return "<buffer>"  # an array, or a pointer the library writes through


def run(name: str, *arguments: object, port: Optional[str] = None,
        succeeded: Callable[[Any], bool] = _is_one, port_text: bool = True) -> tuple[Any, str]:
    """The result of the library's function `name`, logged, and its error
    text ("" when `succeeded` says it did not fail). `port_text` False takes
    the library's text even beside other calls: for calls that record their
    error on no port (opens, files)."""
    function = getattr(lib(), name)
    token = _calls.begin()
    started = time.monotonic()
    failed = True
    result = None
    try:
        result = function(*arguments)
        failed = not succeeded(result)
    finally:
        text = _calls.end(token, failed, port, port_text)
    if log.isEnabledFor(logging.DEBUG):
        log.debug("%s(%s) = %r in %.1f ms", name, ", ".join(map(_shown, arguments)),
                  decode(result) if isinstance(result, bytes) else result,
                  (time.monotonic() - started) * 1000)
    return result, (text or f"{name} returned {result}") if failed else ""


def call(name: str, *arguments: object, port: Optional[str] = None,
         succeeded: Callable[[Any], bool] = _is_one, port_text: bool = True) -> Any:
    """As run, but a failure raises ZeltoComError with the library's text."""
    result, text = run(name, *arguments, port=port, succeeded=succeeded, port_text=port_text)
    if text:
        raise fail(text, name, port, result)
    return result


def text_array(texts: Sequence[bytes]) -> ctypes.Array[ctypes.c_char_p]:
    """A C array of the texts."""
    return (ctypes.c_char_p * max(len(texts), 1))(*texts)


def answer_buffers(count: int) -> tuple[list[ctypes.Array[ctypes.c_char]],
                                        ctypes.Array[ctypes.c_void_p]]:
    """Buffers for `count` answers and the array of pointers to them; keep
    the buffers alive while the array is in use."""
    buffers = [ctypes.create_string_buffer(ANSWER_SIZE) for _ in range(count)]
    pointers = (ctypes.c_void_p * max(count, 1))(*[ctypes.addressof(b) for b in buffers])
    return buffers, pointers


def int_array(values: Iterable[object] = (), size: int = MAX_SAMPLES, what: str = "number",
              call: Optional[str] = None) -> ctypes.Array[ctypes.c_int]:
    """A C int array of `size` elements, the first ones `values` (whole
    numbers of any kind, numpy arrays too)."""
    array = (ctypes.c_int * size)()
    for index, value in enumerate(values):
        array[index] = whole(value, what, call=call)
    return array


def split(text: str, separator: str = ";") -> list[str]:
    """The fields of a joined text, empty ones left out."""
    return [field for field in text.split(separator) if field]
