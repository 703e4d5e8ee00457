"""The package against zeltocom.h: each ctypes prototype against the C
declaration of its function, each size of zeltocom._sizes against the
header's macro. Prints what differs and exits 1.

    python3 check_header.py path/to/zeltocom.h

Run by tests/check_reference.sh."""

from __future__ import annotations

import ctypes
import re
import sys
from pathlib import Path

PACKAGE = Path(__file__).resolve().parent / "zeltocom"
sys.path.insert(0, str(PACKAGE.parent))

from zeltocom import _library, _sizes  # noqa: E402

P = ctypes.POINTER
# The ctypes that may carry each C type (blanks as in "const char* const*").
CTYPES: dict[str, tuple[object, ...]] = {
    "void": (None,),
    "int": (ctypes.c_int,),
    "unsigned": (ctypes.c_uint,),
    "float": (ctypes.c_float,),
    "double": (ctypes.c_double,),
    "char": (ctypes.c_char,),
    "char*": (ctypes.c_char_p,),
    "const char*": (ctypes.c_char_p,),
    "int*": (P(ctypes.c_int),),
    "const int*": (P(ctypes.c_int),),
    "unsigned*": (P(ctypes.c_uint),),
    "float*": (P(ctypes.c_float),),
    "double*": (P(ctypes.c_double),),
    "unsigned char*": (P(ctypes.c_ubyte),),
    "const char* const*": (P(ctypes.c_char_p),),
    # Buffers the library writes into: pointers to the host's own buffers.
    "char**": (P(ctypes.c_void_p), P(ctypes.c_char_p)),
    "char* const*": (P(ctypes.c_void_p), P(ctypes.c_char_p)),
    "s_CommPort*": (ctypes.c_void_p,),
}


def c_type(text: str) -> str:
    """`text` with its blanks as in CTYPES: "const char *const *" gives
    "const char* const*"."""
    text = re.sub(r"\s*\*\s*", "* ", text.strip())
    return re.sub(r"\s+", " ", text).replace("* *", "**").strip()


def declarations(header: str) -> dict[str, tuple[str, list[str]]]:
    """Each declared function's return type and parameter types."""
    code = re.sub(r"^\s*#.*$", " ", re.sub(r"/\*.*?\*/", " ", header, flags=re.S), flags=re.M)
    found = {}
    for returned, name, parameters in re.findall(
            r"ZELTOCOM_API\s+([^;(]*?)\s*\b(ZeltoCom_\w+)\s*\(([^)]*)\)\s*;", code):
        types = [] if parameters.strip() in ("", "void") else [
            c_type(re.sub(r"\w+\s*$", "", parameter)) for parameter in parameters.split(",")]
        found[name] = (c_type(returned), types)
    return found


def named(kind: object) -> str:
    return "None" if kind is None else getattr(kind, "__name__", repr(kind))


def prototype_errors(declared: dict[str, tuple[str, list[str]]]) -> list[str]:
    errors = []
    called = set(re.findall(r"\bZeltoCom_\w+", "".join(
        path.read_text() for path in sorted(PACKAGE.glob("*.py")))))
    for name in sorted(called - set(_library._PROTOTYPES)):
        errors.append(f"{name}: used by the package without a prototype")
    for name, (restype, argtypes) in sorted(_library._PROTOTYPES.items()):
        if name not in declared:
            errors.append(f"{name}: not declared in zeltocom.h")
            continue
        returned, parameters = declared[name]
        if len(argtypes) != len(parameters):
            errors.append(f"{name}: {len(parameters)} arguments in zeltocom.h, "
                          f"{len(argtypes)} in the package")
        pairs = [("the result", returned, restype)] + [
            (f"argument {i}", c, kind) for i, (c, kind) in enumerate(zip(parameters, argtypes), 1)]
        for what, c, kind in pairs:
            if c not in CTYPES:
                errors.append(f"{name}: no ctypes type known for {what}'s C type {c}")
            elif not any(kind is allowed for allowed in CTYPES[c]):
                errors.append(f"{name}: {what} is {c} in zeltocom.h, {named(kind)} in the package")
    return errors


def macros(header: str) -> dict[str, int]:
    """The header's macros that are whole numbers, by name without the
    ZELTOCOM_ prefix."""
    code = re.sub(r"/\*.*?\*/", " ", header, flags=re.S)
    values: dict[str, int] = {}
    for name, text in re.findall(r"^\s*#\s*define\s+ZELTOCOM_(\w+)[ \t]+(.+)$", code, re.M):
        text = re.sub(r"\bZELTOCOM_(\w+)",
                      lambda m: str(values.get(m.group(1), m.group(0))), text)
        text = re.sub(r"\b(\d+)[uUlL]+\b", r"\1", text)
        if re.fullmatch(r"[\d\s()+\-*/]+", text):
            values[name] = int(eval(text.replace("/", "//"), {"__builtins__": {}}))
    return values


def size_errors(header: str) -> list[str]:
    wanted = macros(header)
    have = {name: value for name, value in vars(_sizes).items()
            if name.isupper() and isinstance(value, int)}
    errors = [f"ZELTOCOM_{name} is {value} in zeltocom.h, {have.get(name, 'missing')} in "
              f"zeltocom/_sizes.py" for name, value in sorted(wanted.items())
              if have.get(name) != value]
    errors += [f"{name} of zeltocom/_sizes.py is no macro of zeltocom.h"
               for name in sorted(set(have) - set(wanted))]
    return errors


def main() -> int:
    header = Path(sys.argv[1]).read_text()
    errors = prototype_errors(declarations(header)) + size_errors(header)
    for error in errors:
        print(error)
    if not errors:
        print(f"{len(_library._PROTOTYPES)} Python prototypes and {len(macros(header))} sizes "
              "agree with zeltocom.h")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
