"""zeltocom.plot: the CIE loci, the result document, and the pictures (with
matplotlib's Agg backend, skipped without matplotlib)."""

import io
import json
import sys
import tempfile
import unittest
from pathlib import Path
from unittest import mock

import zeltocom
from zeltocom import Blinking, Run, Samples, ZeltoComError, plot

ROOT = Path(__file__).resolve().parents[2]
RESULT = ROOT / "tests" / "tool" / "plot_result.json"
BINS = ROOT / "examples" / "bins.vec"

try:
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as pyplot
except ImportError:
    pyplot = None


class DocumentTest(unittest.TestCase):
    def test_known_chromaticities_from_the_table_of_every_5_nm_from_380_to_780(self) -> None:
        self.assertEqual([row[0] for row in plot.observer()], list(range(380, 785, 5)))
        self.assertEqual(plot._observer_table("# nm\n\n500 0.0049 0.323 0.272\n"),
                         ((500, 0.0049, 0.323, 0.272),))
        locus = {nm: (x, y) for nm, x, y in plot.spectral_locus()}
        cases = [  # (what, computed, published)
            ("520 nm", locus[520], (0.0743, 0.8338)),
            ("380 nm", locus[380], (0.1741, 0.0050)),
            ("700 nm", locus[700], (0.7347, 0.2653)),
            ("1000 K", plot.planckian(1000), (0.6528, 0.3444)),
            ("6500 K", plot.planckian(6500), (0.3135, 0.3237)),
        ]
        for what, computed, published in cases:
            self.assertLess(max(abs(c - p) for c, p in zip(computed, published)), 6e-4, what)

    def test_points_of_every_fiber_with_x_and_y(self) -> None:
        document = json.loads(RESULT.read_text())
        self.assertEqual([(label, passed) for label, _, _, passed in plot._points(document)],
                         [("ZA000001:1", True), ("ZA000001:2", True), ("ZA000001:3", False),
                          ("ZA000002:1", True), ("ZA000002:2", False)])
        self.assertEqual(plot._title({"plan": "p", "unit": None, "pass": True}), "p: PASS")

    def test_what_is_no_result_document_is_refused(self) -> None:
        with tempfile.TemporaryDirectory() as directory:
            broken = Path(directory) / "broken.json"
            broken.write_text("[1, 2")
            for results in (broken, Path(directory) / "missing.json",
                            {"instruments": [{"fibers": [{"x": 0.3, "y": 0.3}]}]},
                            {"instruments": [{"serial": "S", "fibers": [
                                {"fiber": 1, "x": "a", "y": 0.3, "pass": True}]}]}):
                with self.subTest(results=results):
                    with self.assertRaisesRegex(ZeltoComError, "(?i)not a test result document"):
                        plot._points(plot._document(results))

    def test_a_picture_asks_for_matplotlib(self) -> None:
        with mock.patch.dict(sys.modules, {"matplotlib": None, "matplotlib.pyplot": None}):
            for draw in (lambda: plot.cie(RESULT), lambda: plot.sequence([1, 2], 10)):
                with self.assertRaises(ImportError) as caught:
                    draw()
                self.assertEqual(str(caught.exception), plot.MISSING_MATPLOTLIB)


@unittest.skipIf(pyplot is None, "matplotlib is not installed (Debian: python3-matplotlib)")
class PicturesTest(unittest.TestCase):
    def tearDown(self) -> None:
        pyplot.close("all")

    def test_chart_of_a_result_file_with_its_bins(self) -> None:
        ax = plot.cie(RESULT, bins=BINS)
        # The points of each scatter by its legend label.
        self.assertEqual({c.get_label(): len(c.get_offsets()) for c in ax.collections
                          if c.get_label().startswith(("pass", "fail"))},
                         {"pass (3)": 3, "fail (2)": 2})
        texts = {text.get_text() for text in ax.texts}
        self.assertLessEqual({"A1", "Area 7", "ZA000002:2", "6500 K", "520"}, texts)
        self.assertEqual(ax.get_title(), 'front lamp <&> "test", unit U0042: FAIL')
        self.assertEqual((ax.get_xlim(), ax.get_ylim()), (plot.WHOLE_X, plot.WHOLE_Y))
        ax.figure.savefig(io.BytesIO(), format="svg")

    def test_zoom_shows_every_point_and_bin_and_no_more_than_needed(self) -> None:
        document = json.loads(RESULT.read_text())
        del document["instruments"][1:]  # near the bins
        ax = plot.cie(document, bins=BINS, zoom=True)
        (left, right), (bottom, top) = ax.get_xlim(), ax.get_ylim()
        shown = [(x, y) for _, x, y, _ in plot._points(document)]
        shown += [corner for _, corners in zeltocom.bins(BINS) for corner in corners]
        for x, y in shown:
            self.assertTrue(left < x < right and bottom < y < top, (x, y))
        self.assertLess(right - left, 0.6)  # the whole chart is 0.8 wide
        self.assertAlmostEqual((top - bottom) / (right - left), 0.9 / 0.8)
        # Given axes are drawn on, not replaced.
        given = pyplot.subplots()[1]
        self.assertIs(plot.cie(document, ax=given), given)

    def test_sequence_with_runs_and_blinking(self) -> None:
        intensities = ([16411] * 10 + [0] * 10) * 5
        runs = [Run(100, 16411 if i % 2 == 0 else 0) for i in range(10)]
        ax = plot.sequence(Samples(1, intensity=intensities), 10, runs=runs,
                           blinking=Blinking(5.0, 50.0, 4), title="fiber 1")
        self.assertEqual(ax.get_xlim(), (0, 1000))
        self.assertEqual(ax.get_title(), "fiber 1\n5.00 Hz, 50.0 % duty cycle, over 4 whole cycles")
        self.assertEqual(len(ax.patches), 10 + 1)  # the runs and the steps
        self.assertEqual(sorted(t.get_text() for t in ax.get_legend().get_texts()),
                         ["dark run", "intensity", "lit run"])
        for samples, period in ((Samples(1), 10), ([], 10), ([1, 2], 0)):
            with self.subTest(samples=samples, period=period):
                with self.assertRaises(ZeltoComError):
                    plot.sequence(samples, period)

