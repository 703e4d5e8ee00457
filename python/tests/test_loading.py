"""Which library the package loads, in a fresh interpreter each time: the
loader's own search path (LD_LIBRARY_PATH) is read only when a process
starts."""

import os
import subprocess
import sys
import unittest
from pathlib import Path

from zeltocom._library import LIBRARY_MAJOR

PACKAGE_ROOT = Path(__file__).resolve().parents[1]

# Fails loudly should the package ask find_library, which may start a
# compiler; prints the version and the name the library was loaded by, or
# the package's error text.
PROBE = """
import ctypes.util
import zeltocom
ctypes.util.find_library = lambda name: exit("find_library was asked for " + name)
try:
    print(zeltocom.version(), zeltocom._library.lib()._name)
except zeltocom.ZeltoComError as error:
    print(error.text)
"""


@unittest.skipUnless(os.environ.get("ZELTOCOM_LIBRARY"), "needs ZELTOCOM_LIBRARY")
class LoadingTest(unittest.TestCase):
    def probe(self, library: str = "") -> str:
        """PROBE's output, with this build's library on the loader's path and
        ZELTOCOM_LIBRARY set to `library` (empty: none)."""
        build = str(Path(os.environ["ZELTOCOM_LIBRARY"]).resolve().parent)
        environment = {**os.environ, "LD_LIBRARY_PATH": build, "ZELTOCOM_LIBRARY": library}
        run = subprocess.run([sys.executable, "-c", PROBE], cwd=PACKAGE_ROOT, env=environment,
                             capture_output=True, text=True, timeout=60)
        self.assertEqual(run.returncode, 0, run.stderr)
        return run.stdout.strip()

    def test_loads_the_major_version_by_name_without_find_library(self) -> None:
        if any((PACKAGE_ROOT / "zeltocom").glob("libzeltocom.so*")):
            self.skipTest("a library lies beside the package")
        version, name = self.probe().split()
        self.assertEqual(name, f"libzeltocom.so.{LIBRARY_MAJOR}")
        self.assertTrue(version.startswith(f"v{LIBRARY_MAJOR}."), version)

    def test_zeltocom_library_wins_over_every_other_place(self) -> None:
        text = self.probe("/nonexistent/libzeltocom.so")
        self.assertIn("/nonexistent/libzeltocom.so (", text)
        self.assertNotIn(f"libzeltocom.so.{LIBRARY_MAJOR} (", text)

