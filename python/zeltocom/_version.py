"""The version of ZeltoCom this package belongs to: that of the project's
build (CMake's project()), which checks that the two agree."""

__version__ = "3.2.0"
