"""A binding of the Kovantis C interface for Python, made from its headers alone.

Reads kovantis_c.h and kovantis_sim_c.h as a binding generator would (their declarations keep to a
small, regular subset of C: typedefs of opaque structs, structs, enums and function pointers, one
prototype per declaration), and declares every function of them on the loaded libraries with its
argument and result types. Nothing here knows the SDK beyond what the headers say.
"""

import ctypes
import re

SCALARS = {
    "void": None,
    "int": ctypes.c_int,
    "unsigned": ctypes.c_uint,
    "double": ctypes.c_double,
    "size_t": ctypes.c_size_t,
    "int64_t": ctypes.c_int64,
    "uint64_t": ctypes.c_uint64,
    "char": ctypes.c_char,
}


class Header:
    """What the headers declare: constants, types and functions, in order."""

    def __init__(self, paths):
        self.constants = {}
        self.types = {}
        self.opaque = set()
        self.functions = {}  # name -> (result, [(type text, name)])
        self._pending_structs = {}
        for path in paths:
            with open(path, encoding="utf-8") as f:
                self._read(f.read())

    # ------------------------------------------------------------------------- reading the text

    def _read(self, text):
        text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
        text = re.sub(r"//[^\n]*", " ", text)
        kept = []
        active = []  # one flag per open #if: __cplusplus blocks are not C
        for line in text.splitlines():
            stripped = line.strip()
            if stripped.startswith("#"):
                directive = stripped[1:].split()
                word = directive[0] if directive else ""
                if word in ("if", "ifdef", "ifndef"):
                    active.append(not (word == "ifdef" and directive[1:] == ["__cplusplus"]))
                elif word == "else":
                    active[-1] = not active[-1]
                elif word == "endif":
                    active.pop()
                elif word == "define" and all(active):
                    self._define(stripped)
                continue
            if all(active):
                kept.append(line)
        body = re.sub(r"\bKOV_API\b", " ", "\n".join(kept))
        for declaration in self._split(body):
            self._declare(" ".join(declaration.split()))

    def _define(self, line):
        m = re.match(r"#\s*define\s+(KOV_\w+)\s+(.+)$", line)
        if not m:
            return
        value = m.group(2).strip()
        if value.startswith('"'):
            self.constants[m.group(1)] = value.strip('"').encode()
        elif re.fullmatch(r"-?\d+", value):
            self.constants[m.group(1)] = int(value)

    @staticmethod
    def _split(body):
        depth, start = 0, 0
        for i, c in enumerate(body):
            if c == "{":
                depth += 1
            elif c == "}":
                depth -= 1
            elif c == ";" and depth == 0:
                yield body[start:i]
                start = i + 1

    def _declare(self, d):
        if not d:
            return
        m = re.fullmatch(r"typedef struct (\w+) (\w+)", d)
        if m:
            self.opaque.add(m.group(2))
            return
        m = re.fullmatch(r"typedef enum (\w+) \{(.*)\} (\w+)", d)
        if m:
            for item in m.group(2).split(","):
                name, _, value = item.partition("=")
                self.constants[name.strip()] = int(value)
            self.types[m.group(3)] = ctypes.c_int
            return
        m = re.fullmatch(r"typedef struct (\w+) \{(.*)\} (\w+)", d)
        if m:
            self._struct(m.group(3), m.group(2))
            return
        m = re.fullmatch(r"typedef (.+?)\(\*(\w+)\)\((.*)\)", d)
        if m:
            self.types[m.group(2)] = self._function_type(m.group(1), m.group(3))
            return
        m = re.fullmatch(r"(.+?)\b(kov_\w+)\((.*)\)", d)
        if m:
            self.functions[m.group(2)] = (m.group(1).strip(), self._parameters(m.group(3)))
            return
        raise ValueError("a declaration this binding cannot read: " + d)

    def _struct(self, name, members):
        fields = []
        for member in members.split(";"):
            member = member.strip()
            if not member:
                continue
            m = re.fullmatch(r"(.+?)\(\*(\w+)\)\((.*)\)", member)
            if m:
                fields.append((m.group(2), self._function_type(m.group(1), m.group(3))))
            else:
                type_text, field = self._split_name(member)
                fields.append((field, self.ctype(type_text)))
        self.types[name] = type(name, (ctypes.Structure,), {"_fields_": fields})

    @staticmethod
    def _split_name(text):
        m = re.fullmatch(r"(.*?[\s*])(\w+)", text.strip())
        return m.group(1).strip(), m.group(2)

    def _parameters(self, text):
        text = text.strip()
        if text in ("", "void"):
            return []
        return [self._split_name(p) for p in text.split(",")]

    def _function_type(self, result, parameters):
        return ctypes.CFUNCTYPE(self.ctype(result), *[self.ctype(t) for t, _ in self._parameters(parameters)])

    # -------------------------------------------------------------------------------- C types

    def ctype(self, text):
        """The ctypes type of a C type as the headers write it."""
        text = text.replace("const", " ")
        pointers = text.count("*")
        base = text.replace("*", " ").strip()
        if base in SCALARS:
            scalar = SCALARS[base]
        elif base in self.types:
            scalar = self.types[base]
        elif base in self.opaque:
            scalar = None
        else:
            raise ValueError("a type this binding does not know: " + text)
        if pointers == 0:
            return scalar
        if base == "char" and pointers == 1:
            return ctypes.c_char_p
        if pointers == 2 and base == "char":
            return ctypes.POINTER(ctypes.c_void_p)  # an answer to free with kov_free
        if scalar is None:
            return ctypes.POINTER(ctypes.c_void_p) if pointers == 2 else ctypes.c_void_p
        result = scalar
        for _ in range(pointers):
            result = ctypes.POINTER(result)
        return result


class Kovantis:
    """The libraries, every function of the headers declared on them."""

    def __init__(self, header_paths, library_paths):
        self.header = Header(header_paths)
        self._libraries = [ctypes.CDLL(path) for path in library_paths]
        self.missing = []
        for name, (result, parameters) in self.header.functions.items():
            function = self._find(name)
            if function is None:
                self.missing.append(name)
                continue
            function.restype = self.header.ctype(result)
            function.argtypes = [self.header.ctype(t) for t, _ in parameters]
            setattr(self, name, function)
        for name, value in self.header.constants.items():
            setattr(self, name, value)

    def _find(self, name):
        for library in self._libraries:
            try:
                return getattr(library, name)
            except AttributeError:
                pass
        return None

    def type(self, name):
        return self.header.types[name]

    def text(self, call, *args):
        """Calls a function answering through char**: the text, the SDK's memory freed."""
        out = ctypes.c_void_p()
        status = call(*args, ctypes.byref(out))
        if status != self.KOV_OK:
            raise RuntimeError("%s: %s" % (call.__name__, self.kov_last_error().decode()))
        try:
            return ctypes.string_at(out.value).decode()
        finally:
            self.kov_free(out)
