#!/usr/bin/env python3
"""Build steps of the hook probes that the GNU toolchain can't do itself.

fill-delay-directory DLL SYMBOL
    Points the PE's delay-import directory entry (data directory 13) at the
    ImgDelayDescr array that the DLL exports as SYMBOL, as the MSVC linker
    does for /DELAYLOAD; the size covers the descriptors and the empty one
    that ends them.

ordinal-def OLE32_DLL FUNCTION DEF
    Writes an import definition that imports FUNCTION from ole32.dll by its
    ordinal in OLE32_DLL (Wine's), with no name.
"""
import struct
import sys

DELAY_IMPORT_DIRECTORY = 13
EXPORT_DIRECTORY = 0
DELAY_DESCRIPTOR_SIZE = 32


class PeFile:
    def __init__(self, data):
        self.data = data
        if data[:2] != b"MZ":
            raise ValueError("no MZ signature")
        self.pe = struct.unpack_from("<I", data, 0x3C)[0]
        if data[self.pe:self.pe + 4] != b"PE\0\0":
            raise ValueError("no PE signature")
        sections, optional_size = struct.unpack_from("<2xH12xH", data, self.pe + 4)
        self.optional = self.pe + 24
        magic = struct.unpack_from("<H", data, self.optional)[0]
        if magic not in (0x10B, 0x20B):
            raise ValueError("unknown optional header magic %#x" % magic)
        self.directories = self.optional + (112 if magic == 0x20B else 96)
        self.directory_count = struct.unpack_from("<I", data, self.directories - 4)[0]
        table = self.optional + optional_size
        self.sections = [struct.unpack_from("<8xIIII", data, table + 40 * i) for i in range(sections)]

    def offset(self, rva):
        for virtual_size, virtual_address, raw_size, raw_pointer in self.sections:
            if virtual_address <= rva < virtual_address + max(virtual_size, raw_size):
                return raw_pointer + rva - virtual_address
        raise ValueError("rva %#x in no section" % rva)

    def directory(self, index):
        if index >= self.directory_count:
            raise ValueError("no data directory %d" % index)
        return struct.unpack_from("<II", self.data, self.directories + 8 * index)

    def text(self, rva):
        start = self.offset(rva)
        return self.data[start:self.data.index(b"\0", start)].decode("ascii")

    def exports(self):
        """name -> (rva, ordinal)"""
        rva, _ = self.directory(EXPORT_DIRECTORY)
        base = self.offset(rva)
        ordinal_base, _, names, functions_rva, names_rva, ordinals_rva = struct.unpack_from("<16xIIIIII", self.data, base)
        result = {}
        for i in range(names):
            name = self.text(struct.unpack_from("<I", self.data, self.offset(names_rva) + 4 * i)[0])
            index = struct.unpack_from("<H", self.data, self.offset(ordinals_rva) + 2 * i)[0]
            function = struct.unpack_from("<I", self.data, self.offset(functions_rva) + 4 * index)[0]
            result[name] = (function, ordinal_base + index)
        return result


def fill_delay_directory(dll, symbol):
    with open(dll, "rb") as file:
        data = bytearray(file.read())
    pe = PeFile(data)
    exports = pe.exports()
    if symbol not in exports:
        raise ValueError("%s does not export %s" % (dll, symbol))
    rva = exports[symbol][0]
    count = 0
    while any(data[pe.offset(rva) + count * DELAY_DESCRIPTOR_SIZE:][:DELAY_DESCRIPTOR_SIZE]):
        count += 1
    if count == 0:
        raise ValueError("no delay-import descriptor at %s" % symbol)
    pe.directory(DELAY_IMPORT_DIRECTORY)  # the entry must exist
    struct.pack_into("<II", data, pe.directories + 8 * DELAY_IMPORT_DIRECTORY,
                     rva, (count + 1) * DELAY_DESCRIPTOR_SIZE)
    with open(dll, "wb") as file:
        file.write(data)


def ordinal_def(ole32, function, definition):
    with open(ole32, "rb") as file:
        pe = PeFile(file.read())
    exports = pe.exports()
    if function not in exports:
        raise ValueError("%s does not export %s" % (ole32, function))
    with open(definition, "w") as file:
        file.write("LIBRARY ole32.dll\nEXPORTS\n    %s @%d NONAME\n" % (function, exports[function][1]))


def main(arguments):
    if len(arguments) == 3 and arguments[0] == "fill-delay-directory":
        fill_delay_directory(arguments[1], arguments[2])
    elif len(arguments) == 4 and arguments[0] == "ordinal-def":
        ordinal_def(arguments[1], arguments[2], arguments[3])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except (OSError, ValueError) as error:
        sys.exit("pe_tool: %s" % error)
