#!/usr/bin/env python3
"""Checks the boundary of the shared library in a build directory.

    python3 abi/check.py build/shared            # the three checks below
    python3 abi/check.py build/shared --update   # rewrite the ABI baseline

1. Exports: every symbol in the library's dynamic symbol table belongs to a
   class of abi/exported-classes, and none is a GNU unique symbol (such a
   symbol, like the NODELETE flag, keeps the library mapped after dlclose).
2. Imports: every symbol the library leaves undefined comes from the C
   library or the C++ runtime, or is defined by the stand-ins' library and
   named in a header of contracts/, so that a server can link its own closed
   libraries in place of the stand-ins.
3. ABI: the library's ABI, as abidw reads it from the debug information,
   has no change against the baseline abi/<SONAME>.abi other than additions.
   A deliberate incompatible change moves the version in CMakeLists.txt,
   which renames the SONAME, and rewrites the baseline with --update.
"""

import argparse
import glob
import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LIBRARY = "libServerDataManager.so"
STANDINS = "libServerDataManagerStandins.so"

# Undefined symbols of the C library and the C++ runtime carry these version
# tags; the weak ones without a tag are references of the C runtime's start
# files that nothing needs to resolve.
RUNTIME_VERSIONS = re.compile(r"@@?(GLIBC|GLIBCXX|CXXABI|GCC)_[0-9.]+$")
START_FILE_REFERENCES = {"__gmon_start__", "_ITM_deregisterTMCloneTable",
                         "_ITM_registerTMCloneTable"}

# Demangled forms that name an entity of a class without being its member.
SPECIAL_PREFIXES = ("vtable for ", "typeinfo name for ", "typeinfo for ", "VTT for ",
                    "construction vtable for ", "guard variable for ",
                    "non-virtual thunk to ", "virtual thunk to ",
                    "covariant return thunk to ", "reference temporary for ")


OPERATOR = re.compile(r"\boperator\s*(\(\)|\[\]|[^\w\s(]+)?")


def run(args):
    return subprocess.run(args, check=True, capture_output=True, text=True).stdout


def dynamic_symbols(path, which):
    """(kind, name) of the dynamic symbols that nm lists as `which`."""
    symbols = []
    for line in run(["nm", "-D", which, path]).splitlines():
        fields = line.split()
        if len(fields) >= 2:
            symbols.append((fields[-2], fields[-1]))
    return symbols


def demangle(names):
    if not names:
        return {}
    out = subprocess.run(["c++filt"], input="\n".join(names) + "\n", check=True,
                         capture_output=True, text=True).stdout.splitlines()
    return dict(zip(names, out))


def split_top_level(text, separator):
    """Splits `text` at `separator` outside of <>, () and []."""
    parts, depth, start, i = [], 0, 0, 0
    while i < len(text):
        c = text[i]
        if c in "<([":
            depth += 1
        elif c in ">)]":
            depth -= 1
        elif depth == 0 and text.startswith(separator, i):
            parts.append(text[start:i])
            i += len(separator)
            start = i
            continue
        i += 1
    parts.append(text[start:])
    return parts


def leading_name(text):
    match = re.match(r"\s*(?:const\s+|volatile\s+)*([A-Za-z_]\w*)", text)
    return match.group(1) if match else None


def owners(demangled):
    """The names a symbol belongs to: the outermost scope of its qualified
    name, or for a free operator the outermost scopes of its operands."""
    name = demangled
    for prefix in SPECIAL_PREFIXES:
        if name.startswith(prefix):
            name = name[len(prefix):]
            break
    # The qualified name ends where the top-level parameter list starts; a
    # function template's return type stands before it, after a space.
    head, params = name, ""
    depth, i = 0, 0
    while i < len(name):
        operator = OPERATOR.match(name, i)
        if operator:  # its symbols are no brackets: "operator<", "operator()"
            i = operator.end()
            continue
        c = name[i]
        if c in "<[":
            depth += 1
        elif c in ">]":
            depth -= 1
        elif c == "(" and depth == 0:
            head, params = name[:i], name[i + 1:name.rfind(")")]
            break
        i += 1
    words = split_top_level(head.strip(), " ")
    # "operator new" and conversion operators hold a space of their own.
    start = max([i for i, w in enumerate(words) if w.endswith("operator")] or [len(words) - 1])
    head = " ".join(words[start:])
    scopes = split_top_level(head, "::")
    if scopes[0].startswith("operator") and len(scopes) == 1:
        return {n for n in map(leading_name, split_top_level(params, ",")) if n}
    return {leading_name(scopes[0])} - {None}


def contract_names():
    """Classes, enumerations and free functions that contracts/*.h declare."""
    names = set()
    for header in glob.glob(os.path.join(ROOT, "contracts", "*.h")):
        with open(header, encoding="utf-8") as f:
            text = re.sub(r"//[^\n]*", "", f.read())
        # Attributes and macro arguments stand between `class` and the name.
        bare = text
        while True:
            stripped = re.sub(r"\([^()]*\)", "", bare)
            if stripped == bare:
                break
            bare = stripped
        for match in re.finditer(r"\b(?:class|struct|enum)\s+([^{};:]*)[{};:]", bare):
            words = re.findall(r"[A-Za-z_]\w*", match.group(1))
            if words:
                names.add(words[-1])
        for match in re.finditer(r"^(?!(?:class|struct|enum|template|typedef|using)\b)"
                                 r"[A-Za-z_][^;{}()#]*?\b(operator\s*[^\s(]+|[A-Za-z_]\w*)\s*\(",
                                 text, re.M):
            names.add(re.sub(r"\s+", "", match.group(1)))
    return names


def read_list(path):
    with open(path, encoding="utf-8") as f:
        return {line.strip() for line in f if line.strip() and not line.startswith("#")}


def check_exports(library, allowed):
    symbols = dynamic_symbols(library, "--defined-only")
    names = demangle([name for _, name in symbols])
    failures = []
    for kind, name in symbols:
        if kind == "u":
            failures.append(f"GNU unique, pins the library in memory: {names[name]}")
        elif not owners(names[name]) & allowed:
            failures.append(f"exported but in no class of abi/exported-classes: {names[name]}")
    if re.search(r"FLAGS_1.*NODELETE", run(["readelf", "-d", library])):
        failures.append("the library is marked NODELETE")
    print(f"exports: {len(symbols)} dynamic symbols, each of one of {len(allowed)} classes"
          if not failures else "exports:")
    return failures


def check_imports(library, standins):
    provided = {name for _, name in dynamic_symbols(standins, "--defined-only")}
    declared = contract_names()
    undefined = dynamic_symbols(library, "--undefined-only")
    names = demangle([name for _, name in undefined])
    failures = []
    from_contracts = 0
    for kind, name in undefined:
        if RUNTIME_VERSIONS.search(name):
            continue
        if kind == "w" and name in START_FILE_REFERENCES:
            continue
        if name not in provided:
            failures.append(f"undefined and not in the stand-ins' library: {names[name]}")
        elif not owners(names[name]) & declared:
            failures.append(f"from the stand-ins but declared in no contracts/ header: {names[name]}")
        else:
            from_contracts += 1
    print(f"imports: {len(undefined)} undefined symbols, {from_contracts} of them from the"
          " contracts, the rest from the C library and the C++ runtime")
    return failures


def abi_of(library, out):
    run(["abidw", "--no-corpus-path", "--no-comp-dir-path", "--no-show-locs",
         "--no-parameter-names", "--type-id-style", "hash", "--exported-interfaces-only",
         "--drop-undefined-syms", "--out-file", out, library])
    # Translation units are named by absolute path; keep them relative to the
    # source tree so that the baseline does not depend on where it was built.
    with open(out, encoding="utf-8") as f:
        text = f.read().replace(f"path='{ROOT}/", "path='")
    with open(out, "w", encoding="utf-8") as f:
        f.write(text)


def soname_of(library):
    match = re.search(r"\(SONAME\).*\[(.*)\]", run(["readelf", "-d", library]))
    if not match:
        sys.exit(f"{library} has no SONAME")
    return match.group(1)


def check_abi(library, update):
    soname = soname_of(library)
    baseline = os.path.join(ROOT, "abi", soname + ".abi")
    if update:
        abi_of(library, baseline)
        for stale in glob.glob(os.path.join(ROOT, "abi", "*.abi")):
            if stale != baseline:
                os.remove(stale)
                print(f"abi: removed {os.path.relpath(stale, ROOT)}")
        print(f"abi: wrote {os.path.relpath(baseline, ROOT)}")
        return []
    if not os.path.exists(baseline):
        return [f"no ABI baseline abi/{soname}.abi: a new SONAME comes with a new baseline "
                "(python3 abi/check.py BUILD_DIR --update)"]
    with tempfile.TemporaryDirectory() as scratch:
        current = os.path.join(scratch, soname + ".abi")
        abi_of(library, current)
        strict = subprocess.run(["abidiff", "--no-added-syms", baseline, current],
                                capture_output=True, text=True)
        if strict.returncode != 0:
            print(strict.stdout + strict.stderr)
            return [f"the ABI differs from abi/{soname}.abi (abidiff status {strict.returncode}):"
                    " keep the exported classes as they are, or move the version in"
                    " CMakeLists.txt and rewrite the baseline with --update"]
        added = subprocess.run(["abidiff", baseline, current], capture_output=True, text=True)
    if added.returncode != 0:
        print(f"abi: compatible with abi/{soname}.abi, with additions that the baseline will"
              " take at its next rewrite:")
        print(added.stdout)
    else:
        print(f"abi: identical to abi/{soname}.abi")
    return []


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build_dir", help="a build directory of the shared library")
    parser.add_argument("--update", action="store_true", help="rewrite the ABI baseline")
    args = parser.parse_args()
    library = os.path.join(args.build_dir, LIBRARY)
    standins = os.path.join(args.build_dir, STANDINS)
    for path in (library, standins):
        if not os.path.exists(path):
            sys.exit(f"{path} is missing: build the shared preset first")
    failures = check_exports(library, read_list(os.path.join(ROOT, "abi", "exported-classes")))
    failures += check_imports(library, standins)
    failures += check_abi(library, args.update)
    for failure in failures:
        print("FAIL " + failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
