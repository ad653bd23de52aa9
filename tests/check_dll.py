#!/usr/bin/env python3
"""Checks a built add-in DLL without running it: the PE header kind of its
flavour, its exports under their plain names, a version resource, and no
import of a MinGW runtime DLL (the runtime must be linked in).

With --objects (the 32-bit build folder), also the calling convention of what
Windows and Outlook call, from the decorated names in the i686 objects, where
a stdcall function carries "@" and its argument bytes: every export, DllMain,
the replacements of DoDragDrop and OleSetClipboard (with the same argument
bytes as ole32's own), and every upper-camel-case member (the interface
methods) of every class with a QueryInterface. The compiler itself refuses a
COM override whose convention differs from the interface's."""
import argparse
import glob
import os
import re
import struct
import subprocess
import sys

EXPECTED_EXPORTS = {"EncodeBase64", "DecodeBase64", "DllGetClassObject", "DllCanUnloadNow", "DllRegisterServer",
                    "DllUnregisterServer", "DllInstall", "Install", "Uninstall", "InstallAddin", "UninstallAddin",
                    "RunInstallW", "RunUninstallW"} | {"Java_com_quembrook_com_KorvaneDll_native" + name for name in (
                        "Install", "Uninstall", "SetProductName", "OpenLogFile", "CloseLogFile")}
FORBIDDEN_IMPORTS = ("libstdc++", "libgcc", "libwinpthread")
MACHINES = {"x64": (0x8664, 0x20B), "x86": (0x14C, 0x10B)}
HOOKED = ("DoDragDrop", "OleSetClipboard")


def rva_to_offset(sections, rva):
    for virtual_address, virtual_size, raw_offset, raw_size in sections:
        if virtual_address <= rva < virtual_address + max(virtual_size, raw_size):
            return rva - virtual_address + raw_offset
    raise ValueError("RVA %#x is in no section" % rva)


def c_string(data, offset):
    return data[offset:data.index(b"\0", offset)].decode("ascii")


def defined_functions(paths):
    output = subprocess.run(["i686-w64-mingw32-nm", "--defined-only"] + paths, capture_output=True, text=True,
                            check=True).stdout
    # Parts split off by the optimiser (".cold") are not entry points.
    return {fields[2] for fields in (line.split() for line in output.splitlines()) if len(fields) == 3
            and fields[1] in "Tt" and "." not in fields[2]}


def member(symbol):
    """(class path, method name) of a mangled member function, else None; thunks (__ZTh...) are left out:
    they only adjust `this` and jump to the decorated function."""
    at = len("__ZNK") if symbol.startswith("__ZNK") else len("__ZN") if symbol.startswith("__ZN") else 0
    parts = []
    while at and (length := re.match(r"\d+", symbol[at:])):
        at += len(length.group())
        parts.append(symbol[at:at + int(length.group())])
        at += int(length.group())
    return ("::".join(parts[:-1]), parts[-1]) if len(parts) > 1 and symbol[at:at + 1] == "E" else None


def check_stdcall(objects, exports):
    symbols = defined_functions(glob.glob(os.path.join(objects, "**", "*.obj"), recursive=True))
    failures = []
    for name in sorted(exports | {"DllMain"}):
        if not any(re.fullmatch(r"_%s@\d+" % name, symbol) for symbol in symbols):
            failures.append("%s is not stdcall in the objects" % name)
    ole32 = subprocess.run(["i686-w64-mingw32-gcc-posix", "-print-file-name=libole32.a"], capture_output=True,
                           text=True, check=True).stdout.strip()
    originals = defined_functions([ole32])
    for api in HOOKED:
        want = [symbol[len(api) + 1:] for symbol in originals if re.fullmatch(r"_%s@\d+" % api, symbol)]
        ours = [symbol for symbol in symbols if re.match(r"__Z\d+My%s" % api, symbol)]
        if not ours or any(not symbol.endswith(tuple(want) or "?") for symbol in ours):
            failures.append("replacements of %s %s, ole32's take %s" % (api, ours, want))
    members = [(symbol, member(symbol)) for symbol in symbols]
    com_classes = {found[0] for _, found in members if found and found[1] == "QueryInterface"}
    for symbol, found in members:
        if found and found[0] in com_classes and found[1][:1].isupper() and "@" not in symbol:
            failures.append("%s::%s is not stdcall" % found)
    return failures


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("dll")
    parser.add_argument("--machine", choices=MACHINES, required=True)
    parser.add_argument("--objects", help="the 32-bit build folder, for the calling conventions")
    args = parser.parse_args()
    data = open(args.dll, "rb").read()
    failures = []

    pe = struct.unpack_from("<I", data, 0x3C)[0]
    if data[pe:pe + 4] != b"PE\0\0":
        sys.exit("%s: no PE signature" % args.dll)
    machine, section_count, _, _, _, optional_size, characteristics = struct.unpack_from("<HHIIIHH", data, pe + 4)
    optional = pe + 24
    magic = struct.unpack_from("<H", data, optional)[0]
    want_machine, want_magic = MACHINES[args.machine]
    if machine != want_machine:
        failures.append("machine %#x, expected %#x" % (machine, want_machine))
    if magic != want_magic:
        failures.append("optional header magic %#x, expected %#x" % (magic, want_magic))
    if not characteristics & 0x2000:
        failures.append("not marked as a DLL")

    directories = optional + (112 if magic == 0x20B else 96)
    sections = []
    for i in range(section_count):
        entry = optional + optional_size + 40 * i
        virtual_size, virtual_address, raw_size, raw_offset = struct.unpack_from("<IIII", data, entry + 8)
        sections.append((virtual_address, virtual_size, raw_offset, raw_size))

    export_rva, _ = struct.unpack_from("<II", data, directories)
    exports = set()
    if export_rva:
        export_dir = rva_to_offset(sections, export_rva)
        name_count = struct.unpack_from("<I", data, export_dir + 24)[0]
        names_rva = struct.unpack_from("<I", data, export_dir + 32)[0]
        names = rva_to_offset(sections, names_rva)
        for i in range(name_count):
            name_rva = struct.unpack_from("<I", data, names + 4 * i)[0]
            exports.add(c_string(data, rva_to_offset(sections, name_rva)))
    missing = EXPECTED_EXPORTS - exports
    if missing:
        failures.append("exports missing or decorated: %s (found %s)" % (sorted(missing), sorted(exports)))
    decorated = [name for name in exports if "@" in name or name.startswith("_")]
    if decorated:
        failures.append("decorated exports: %s" % decorated)

    import_rva, _ = struct.unpack_from("<II", data, directories + 8)
    imports = []
    if import_rva:
        entry = rva_to_offset(sections, import_rva)
        while True:
            name_rva = struct.unpack_from("<I", data, entry + 12)[0]
            if name_rva == 0:
                break
            imports.append(c_string(data, rva_to_offset(sections, name_rva)).lower())
            entry += 20
    for name in imports:
        if name.startswith(FORBIDDEN_IMPORTS):
            failures.append("imports the runtime DLL %s" % name)

    resource_rva, _ = struct.unpack_from("<II", data, directories + 16)
    if resource_rva == 0:
        failures.append("no resources (version information is missing)")
    elif b"V\0S\0_\0V\0E\0R\0S\0I\0O\0N\0_\0I\0N\0F\0O" not in data:
        failures.append("no version resource")

    if args.objects:
        failures += check_stdcall(args.objects, exports)

    for failure in failures:
        print("%s: %s" % (args.dll, failure))
    print("%s: %s, %d exports, imports %s" % (args.dll, args.machine, len(exports), ", ".join(imports)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
