"""Pictures with matplotlib, when it is installed: a test result's fibers on
the CIE 1931 chromaticity chart, and a sequence's intensities over time.

    import matplotlib.pyplot as plt
    import zeltocom.plot

    zeltocom.plot.cie("result.json", bins="bins.vec")
    plt.savefig("chart.png")
"""

from __future__ import annotations

import json
import math
import os
from functools import lru_cache
from importlib import resources
from typing import Any, Mapping, Optional, Sequence, Union

from ._library import PathLike, ZeltoComError
from .files import bins as read_bins
from .readings import Blinking, Run, Samples

MISSING_MATPLOTLIB = "matplotlib is needed for zeltocom.plot: apt install python3-matplotlib"

# The whole chart: the spectral locus lies within.
WHOLE_X = (0.0, 0.8)
WHOLE_Y = (0.0, 0.9)
# Temperatures named on the Planckian locus, in kelvin.
NAMED_TEMPERATURES = (1000, 1500, 2000, 3000, 4000, 6500, 10000)


def _axes(ax: Any) -> Any:
    """`ax`, or new axes of a new figure; ImportError without matplotlib."""
    try:
        import matplotlib.pyplot as pyplot
    except ImportError as missing:
        raise ImportError(MISSING_MATPLOTLIB) from missing
    if ax is not None:
        return ax
    return pyplot.figure(figsize=(8, 7.3)).add_subplot()


def _observer_table(text: str) -> tuple[tuple[int, float, float, float], ...]:
    """The lines "nm xbar ybar zbar" of a cie1931.txt, comments skipped."""
    rows = [line.split() for line in text.splitlines()]
    return tuple((int(row[0]), float(row[1]), float(row[2]), float(row[3]))
                 for row in rows if row and not row[0].startswith("#"))


@lru_cache(maxsize=1)
def observer() -> tuple[tuple[int, float, float, float], ...]:
    """The CIE 1931 2-degree observer's colour-matching functions, every
    5 nm: (nm, xbar, ybar, zbar); shared with the zeltocom tool."""
    text = resources.files(__package__).joinpath("cie1931.txt").read_text(encoding="ascii")
    return _observer_table(text)


def _chromaticity(x: float, y: float, z: float) -> tuple[float, float]:
    total = x + y + z
    return x / total, y / total


def spectral_locus() -> list[tuple[int, float, float]]:
    """The chromaticity (x, y) of each wavelength of the table: (nm, x, y)."""
    return [(nm, *_chromaticity(x, y, z)) for nm, x, y, z in observer()]


def planckian(kelvin: float) -> tuple[float, float]:
    """The chromaticity of a black body at `kelvin`: Planck's law weighted by
    the colour-matching functions."""
    second_radiation = 1.4387769e-2  # hc/k, m K
    sums = [0.0, 0.0, 0.0]
    for nm, *weights in observer():
        metres = nm * 1e-9
        radiance = 1 / (metres ** 5 * math.expm1(second_radiation / (metres * kelvin)))
        for i, weight in enumerate(weights):
            sums[i] += weight * radiance
    return _chromaticity(*sums)


Results = Union[Mapping[str, Any], PathLike]


def _document(results: Results) -> Mapping[str, Any]:
    """The result document itself, read from its file when given a path."""
    if isinstance(results, Mapping):
        return results
    try:
        with open(os.fspath(results), encoding="utf-8") as source:
            document = json.load(source)
    except (OSError, ValueError) as error:
        raise ZeltoComError(f"{os.fspath(results)}: not a test result document: {error}") \
            from None
    if not isinstance(document, Mapping):
        raise ZeltoComError(f"{os.fspath(results)}: not a test result document")
    return document


def _points(document: Mapping[str, Any]) -> list[tuple[str, float, float, bool]]:
    """Each fiber's (serial:fiber, x, y, pass); a fiber without x or y is
    left out."""
    points = []
    try:
        for instrument in document["instruments"]:
            for fiber in instrument["fibers"]:
                x, y = fiber["x"], fiber["y"]
                if x is None or y is None:
                    continue
                points.append((f"{instrument['serial']}:{fiber['fiber']}", float(x), float(y),
                               bool(fiber["pass"])))
    except (KeyError, TypeError, ValueError) as error:
        raise ZeltoComError(f"Not a test result document: {error!r}") from None
    return points


def _title(document: Mapping[str, Any]) -> str:
    unit = document.get("unit")
    verdict = {True: ": PASS", False: ": FAIL"}.get(document.get("pass"), "")
    return f"{document.get('plan', '')}{f', unit {unit}' if unit else ''}{verdict}"


def _zoomed(shown: Sequence[tuple[float, float]]) -> tuple[tuple[float, float],
                                                            tuple[float, float]]:
    """The span of `shown` with a margin, in the proportions of the whole."""
    xs, ys = [p[0] for p in shown], [p[1] for p in shown]
    ratio = (WHOLE_Y[1] - WHOLE_Y[0]) / (WHOLE_X[1] - WHOLE_X[0])
    width = max((max(xs) - min(xs)) * 1.3, (max(ys) - min(ys)) * 1.3 / ratio, 0.01)
    cx, cy = (min(xs) + max(xs)) / 2, (min(ys) + max(ys)) / 2
    return (cx - width / 2, cx + width / 2), (cy - width * ratio / 2, cy + width * ratio / 2)


def cie(results: Results, bins: Optional[PathLike] = None, ax: Any = None,
        zoom: bool = False) -> Any:
    """Draws the CIE 1931 chart with the spectral and Planckian loci and
    each fiber of `results` (the document of `zeltocom test PLAN --json`,
    as a dict or the path of its file): a green circle when it passed, a red
    cross when it failed, labelled serial:fiber. `bins` (a .vec file) adds
    its bins, drawn and named. `zoom` shows the points and bins alone
    rather than the whole chart. Returns the axes (new ones unless `ax`)."""
    ax = _axes(ax)
    document = _document(results)
    points = _points(document)
    polygons = read_bins(bins) if bins is not None else []

    locus = spectral_locus()
    ax.fill([x for _, x, _ in locus], [y for _, _, y in locus], facecolor="#f7f7f7",
            edgecolor="#222222", linewidth=1.2, label="spectral locus (nm)")
    for nm, x, y in locus:
        if 460 <= nm <= 620 and nm % 10 == 0 and (nm <= 520 or nm % 20 == 0):
            ax.annotate(str(nm), (x, y), fontsize=7, color="#444444", ha="center",
                        xytext=(x + (x - 1 / 3) * 0.08, y + (y - 1 / 3) * 0.08))
    temperatures = [1000 * 20 ** (i / 120) for i in range(121)]
    curve = [planckian(kelvin) for kelvin in temperatures]
    ax.plot([x for x, _ in curve], [y for _, y in curve], color="#b15928", linewidth=1.2,
            label="Planckian locus")
    for kelvin in NAMED_TEMPERATURES:
        x, y = planckian(kelvin)
        ax.plot([x], [y], ".", color="#b15928")
        ax.annotate(f"{kelvin} K", (x, y), fontsize=7, color="#b15928", xytext=(3, -10),
                    textcoords="offset points")

    for index, (name, corners) in enumerate(polygons):
        xs, ys = [x for x, _ in corners], [y for _, y in corners]
        ax.fill(xs, ys, facecolor="#1f5fa8", alpha=0.1, edgecolor="#1f5fa8",
                label="bin" if index == 0 else None)
        ax.text(sum(xs) / len(xs), sum(ys) / len(ys), name, fontsize=8, color="#1f5fa8",
                ha="center", va="center")

    for passed, marker, colour in ((True, "o", "#43a047"), (False, "x", "#d32f2f")):
        chosen = [point for point in points if point[3] == passed]
        ax.scatter([p[1] for p in chosen], [p[2] for p in chosen], marker=marker, color=colour,
                   zorder=3, label=f"{'pass' if passed else 'fail'} ({len(chosen)})")
        for label, x, y, _ in chosen:
            ax.annotate(label, (x, y), fontsize=7, xytext=(5, 4), textcoords="offset points")

    shown = [(x, y) for _, x, y, _ in points] + [c for _, corners in polygons for c in corners]
    x_span, y_span = _zoomed(shown) if zoom and shown else (WHOLE_X, WHOLE_Y)
    ax.set_xlim(*x_span)
    ax.set_ylim(*y_span)
    ax.set_aspect("equal")
    ax.set_xlabel("x")
    ax.set_ylabel("y")
    ax.set_title(_title(document))
    ax.legend(loc="upper right", fontsize=8)
    return ax


def sequence(samples: Union[Samples, Sequence[int]], period_ms: float,
             runs: Optional[Sequence[Run]] = None, blinking: Optional[Blinking] = None,
             ax: Any = None, title: Optional[str] = None) -> Any:
    """Draws a sequence's intensities (a Samples with its intensity column,
    or the intensities) against time in ms, one sample every `period_ms`
    (capture time plus time between captures), as steps. `runs`
    (Instrument.sequence_pattern) are shaded, the lit ones (the upper half of
    the levels) in yellow; `blinking` (Instrument.sequence_frequency) is
    written in the title. Returns the axes (new ones unless `ax`)."""
    ax = _axes(ax)
    intensities = samples.intensity if isinstance(samples, Samples) else samples
    if intensities is None:
        raise ZeltoComError("The samples hold no intensities")
    values = [int(value) for value in intensities]
    if not values or not period_ms > 0:
        raise ZeltoComError("A sequence picture needs samples and a period above 0 ms")
    if runs:
        levels = [run.level for run in runs]
        middle = (min(levels) + max(levels)) / 2
        start, named = 0, set()
        for run in runs:
            kind = "lit run" if run.level > middle else "dark run"
            ax.axvspan(start, start + run.duration_ms, linewidth=0,
                       color="#ffc107" if kind == "lit run" else "#90a4ae",
                       alpha=0.3 if kind == "lit run" else 0.15,
                       label=None if kind in named else kind)
            named.add(kind)
            start += run.duration_ms
    times = [period_ms * i for i in range(len(values) + 1)]
    ax.stairs(values, times, color="#1f5fa8", linewidth=1.4, label="intensity")
    ax.set_xlim(0, times[-1])
    ax.set_xlabel("time (ms)")
    ax.set_ylabel("intensity")
    heading = [title] if title else []
    if blinking is not None:
        heading.append(f"{blinking.frequency:.2f} Hz, {blinking.duty_cycle:.1f} % duty cycle, "
                       f"over {blinking.cycles} whole cycles")
    ax.set_title("\n".join(heading))
    ax.legend(loc="upper right", fontsize=8)
    return ax
