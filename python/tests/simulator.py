"""Simulated instruments for the tests: the zeltosim executable (from
ZELTOSIM, else ../build/zeltosim) on pseudo-terminals, and ZELTOCOM_PORTS
naming exactly its ports."""

from __future__ import annotations

import os
import re
import subprocess
import unittest
from pathlib import Path
from typing import Any

import zeltocom
from zeltocom import ZeltoComError

ZELTOSIM = (os.environ.get("ZELTOSIM")
            or str(Path(__file__).resolve().parents[2] / "build" / "zeltosim"))


class Simulator:
    """A running zeltosim; `paths` lists its ports in the order printed."""

    def __init__(self, *arguments: str) -> None:
        self.process = subprocess.Popen([ZELTOSIM, *arguments], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.paths: list[str] = []
        for line in self.process.stdout:
            if line.startswith("ZELTOCOM_PORTS="):
                os.environ["ZELTOCOM_PORTS"] = line.strip().split("=", 1)[1]
                break
            path = line.split("path=")[1].split()[0]
            if path not in self.paths:  # a chained instrument shares its port
                self.paths.append(path)
        else:
            self.stop()
            raise RuntimeError(f"{ZELTOSIM} {' '.join(arguments)} printed no ports")
        zeltocom.ports()  # the library lists exactly these from now on

    def fire(self, port: int) -> None:
        """A pulse on the trigger input of port `port` (from 1)."""
        self.process.stdin.write(f"fire {port}\n")
        self.process.stdin.flush()

    def stop(self) -> None:
        self.process.terminate()
        self.process.wait(timeout=10)
        self.process.stdout.close()
        self.process.stdin.close()


class SimulatedTest(unittest.TestCase):
    """Tests against one Simulator of ARGUMENTS, `paths` its ports."""
    ARGUMENTS: tuple[str, ...] = ()

    @classmethod
    def setUpClass(cls) -> None:
        cls.sim = Simulator(*cls.ARGUMENTS)
        cls.paths = cls.sim.paths

    @classmethod
    def tearDownClass(cls) -> None:
        cls.sim.stop()

    def raises(self, shown: str) -> Any:
        """Expects a ZeltoComError whose str(), "call on port: text", starts
        with `shown`."""
        return self.assertRaisesRegex(ZeltoComError, "^" + re.escape(shown))
