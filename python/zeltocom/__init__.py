"""ZeltoCom from Python: LED analysers and spectrometers on serial lines,
through libzeltocom.so (found through ZELTOCOM_LIBRARY, beside this package,
or on the system's library path).

    with zeltocom.Instrument("/dev/ttyUSB0") as analyser:
        for reading in analyser.capture():
            print(reading.fiber, reading.x, reading.y, reading.intensity)
"""

from ._library import ZeltoComError
from .calibration import UserCalibration
from .files import Project, bin_of, bins, check_bins, find_bin
from .instrument import Instrument
from .readings import Blinking, Reading, Run, Samples, SequenceSettings, TriggerState
from .station import (Station, detect, opened_ports, ports, set_response_timeout, set_trace,
                      version)

__all__ = [
    "Blinking", "Instrument", "Project", "Reading", "Run", "Samples", "SequenceSettings",
    "Station", "TriggerState", "UserCalibration", "ZeltoComError", "bin_of", "bins", "check_bins",
    "detect", "find_bin", "opened_ports", "ports", "set_response_timeout", "set_trace",
    "version",
]
