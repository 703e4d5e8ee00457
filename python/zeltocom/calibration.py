"""The user calibration an instrument applies to its readings, per fiber."""

from __future__ import annotations

import ctypes
from typing import Any, Callable

from ._library import fail, real, whole
from .readings import float32

# Calls a library function on the instrument's port: the function's name,
# then the arguments after the port's path.
PortCall = Callable[..., Any]


class UserCalibration:
    """Reads, writes, resets and adjusts the corrections an instrument
    applies to a fiber's readings (fibers from 1). A write with `store`
    keeps the value in the instrument, without it the value holds until
    the instrument is switched off; resets and adjustments always store. An
    adjustment captures (automatic range), reads the fiber and stores what
    moves that reading onto the reference."""

    def __init__(self, path: str, port_call: PortCall) -> None:
        self.path = path
        self._port_call = port_call

    def __repr__(self) -> str:
        return f"UserCalibration({self.path!r})"

    def _call(self, name: str, fiber: object, *arguments: object) -> None:
        self._port_call(name, whole(fiber, "fiber", call=name), *arguments)

    # ---- the colour matrix ----

    def reset_rgb(self, fiber: int) -> None:
        """The factory colour matrix, and an absolute-intensity factor of 1."""
        self._call("ZeltoCom_UserCal_ResetRGBAdj", fiber)

    def take_rgb(self, fiber: int, colour: str) -> None:
        """Records the fiber's raw readings of the last capture as those of
        the reference light `colour`: "R", "G" or "B"."""
        name = "ZeltoCom_UserCal_TakeRGBCurrentValues"
        code = colour.encode("ascii", "replace") if isinstance(colour, str) else b""
        if len(code) != 1:
            raise fail(f"The colour must be one letter, R, G or B, not {colour!r}", name,
                       self.path)
        self._call(name, fiber, code)

    def adjust_rgb(self, fiber: int, red: tuple[float, float, float],
                   green: tuple[float, float, float], blue: tuple[float, float, float]) -> None:
        """Has the instrument compute and store the fiber's colour matrix
        from the recorded readings and the true (x, y, intensity) of the
        red, green and blue reference lights."""
        name = "ZeltoCom_UserCal_AdjustRGB"
        values: list[float] = []
        for light, what in ((red, "red"), (green, "green"), (blue, "blue")):
            x, y, intensity = light
            values += [real(x, f"{what} x", name), real(y, f"{what} y", name),
                       real(intensity, f"{what} intensity", name)]
        self._call(name, fiber, *values)

    # ---- chromaticity offsets ----

    def xy_offsets(self, fiber: int) -> tuple[float, float]:
        """The offsets added to the fiber's x and y."""
        x, y = ctypes.c_float(0), ctypes.c_float(0)
        self._call("ZeltoCom_UserCal_GetxyOffsets", fiber, ctypes.byref(x), ctypes.byref(y))
        return float32(x.value), float32(y.value)

    def set_xy_offsets(self, fiber: int, x: float, y: float, store: bool = False) -> None:
        """Writes the offsets (three decimals)."""
        name = "ZeltoCom_UserCal_SetxyOffsets"
        self._call(name, fiber, real(x, "x offset", name), real(y, "y offset", name),
                   int(bool(store)))

    def reset_xy_offsets(self, fiber: int) -> None:
        """Stores the offsets 0 and 0."""
        self._call("ZeltoCom_UserCal_ResetxyOffsets", fiber)

    def adjust_xy_offsets(self, fiber: int, x: float, y: float) -> None:
        """Stores offsets that move the fiber's x and y onto (`x`, `y`)."""
        name = "ZeltoCom_UserCal_AdjustxyOffsets"
        self._call(name, fiber, real(x, "x reference", name), real(y, "y reference", name))

    # ---- wavelength offset ----

    def wavelength_offset(self, fiber: int) -> int:
        """The offset in nm added to the fiber's dominant wavelength."""
        offset = ctypes.c_int(0)
        self._call("ZeltoCom_UserCal_GetWavelengthOffset", fiber, ctypes.byref(offset))
        return offset.value

    def set_wavelength_offset(self, fiber: int, offset: int, store: bool = False) -> None:
        """Writes the offset, -999 to 999 nm."""
        name = "ZeltoCom_UserCal_SetWavelengthOffset"
        self._call(name, fiber, whole(offset, "wavelength offset", call=name), int(bool(store)))

    def reset_wavelength_offset(self, fiber: int) -> None:
        """Stores the offset 0."""
        self._call("ZeltoCom_UserCal_ResetWavelengthOffset", fiber)

    def adjust_wavelength_offset(self, fiber: int, reference: int) -> None:
        """Stores the offset that moves the dominant wavelength onto
        `reference` nm."""
        name = "ZeltoCom_UserCal_AdjustWavelengthOffset"
        self._call(name, fiber, whole(reference, "wavelength reference", call=name))

    # ---- intensity gain ----

    def intensity_gain(self, fiber: int) -> int:
        """The gain in percent applied to the fiber's intensity."""
        gain = ctypes.c_int(0)
        self._call("ZeltoCom_UserCal_GetIntensityGain", fiber, ctypes.byref(gain))
        return gain.value

    def set_intensity_gain(self, fiber: int, gain: int, store: bool = False) -> None:
        """Writes the gain, 50 to 150 percent."""
        name = "ZeltoCom_UserCal_SetIntensityGain"
        self._call(name, fiber, whole(gain, "intensity gain", call=name), int(bool(store)))

    def reset_intensity_gain(self, fiber: int) -> None:
        """Stores the gain 100."""
        self._call("ZeltoCom_UserCal_ResetIntensityGain", fiber)

    def adjust_intensity_gain(self, fiber: int, reference: int) -> None:
        """Stores the gain that moves the fiber's linear intensity onto
        `reference`."""
        name = "ZeltoCom_UserCal_AdjustIntensityGain"
        self._call(name, fiber, whole(reference, "intensity reference", call=name))

    # ---- absolute-intensity factor ----

    def absolute_intensity_factor(self, fiber: int) -> float:
        """The factor applied to the fiber's absolute intensity."""
        factor = ctypes.c_double(0)
        self._call("ZeltoCom_UserCal_GetAbsIntFactor", fiber, ctypes.byref(factor))
        return factor.value

    def set_absolute_intensity_factor(self, fiber: int, factor: float,
                                      store: bool = False) -> None:
        """Writes the factor (six significant digits)."""
        name = "ZeltoCom_UserCal_SetAbsIntFactor"
        self._call(name, fiber, real(factor, "factor", name), int(bool(store)))

    def reset_absolute_intensity_factor(self, fiber: int) -> None:
        """Stores the factor 1."""
        self._call("ZeltoCom_UserCal_ResetAbsIntFactor", fiber)

    def adjust_absolute_intensity_factor(self, fiber: int, reference: float) -> None:
        """Stores the factor that moves the fiber's absolute intensity onto
        `reference`."""
        name = "ZeltoCom_UserCal_AdjustAbsIntFactor"
        self._call(name, fiber, real(reference, "absolute intensity reference", name))
