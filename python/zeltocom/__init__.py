"""ZeltoCom from Python: LED analysers and spectrometers on serial lines,
through libzeltocom.so (found through ZELTOCOM_LIBRARY, beside this package,
or on the system's library path).

    with zeltocom.Instrument("/dev/ttyUSB0") as analyser:
        for reading in analyser.capture():
            print(reading.fiber, reading.x, reading.y, reading.intensity)
"""

from ._library import ZeltoComError
from .instrument import Instrument
from .readings import Blinking, Reading, Run, SequenceSettings, TriggerState
from .station import Station, detect, opened_ports, ports, set_trace, version

__all__ = [
    "Blinking", "Instrument", "Reading", "Run", "SequenceSettings", "Station", "TriggerState",
    "ZeltoComError", "detect", "opened_ports", "ports", "set_trace", "version",
]
