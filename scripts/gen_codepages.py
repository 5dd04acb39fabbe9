#!/usr/bin/env python3
"""Generates the constant code-page translation tables of the system from iconv.

The system's iconv is the source of truth: every table entry is what `iconv -f SOURCE -t
TARGET` makes of the one input byte. An input byte that iconv cannot convert gets the
table's default; the table's overrides are applied last.

Regenerate (from the repository root, after changing TABLES):

    python3 scripts/gen_codepages.py            # writes every output file
    python3 scripts/gen_codepages.py --check    # exits 1 when a committed file is stale
    python3 scripts/gen_codepages.py --check --verify   # and compare with the iconv command

The conversion runs in the C library's iconv (the library behind the iconv command).

Each entry of TABLES describes one 256-byte table:

    name       C++ name of the table (an `extern const unsigned char name[256]`)
    source     iconv name of the input code page (see `iconv -l`)
    target     iconv name of the output code page
    default    output byte for an input byte without a counterpart
    overrides  {input byte: output byte}, applied after the conversion
    output     generated C++ file (relative to the repository root); tables that name the
               same file are written into it in the order of TABLES
    inputs     optional: the input bytes that are converted (default: all 256); the others
               get the default
    inverse_of optional: the name of an earlier table; this table is then not converted
               but built as the inverse of that table over its `inverse_inputs` (default:
               all 256): entry t of this table is the input byte s for which that table
               gives t (the lowest such s), and bytes never produced get the default.
               `source`/`target` are documentation only for such a table.
    inverse_inputs  optional, with inverse_of: the input bytes of that table to invert
"""
import argparse
import ctypes
import ctypes.util
import os
import subprocess
import sys

VERIFY = False
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

TABLES = [
    dict(name="ebcdic2ascii", source="IBM273", target="IBM850", default=0xFF,
         overrides={0xBC: 0xEE},  # EBCDIC overline and PC macron stand for each other
         output="src/messenger/codepage_273_850.cpp"),
    dict(name="ascii2ebcdic", source="IBM850", target="IBM273", default=0xFF,
         overrides={0xEE: 0xBC},
         output="src/messenger/codepage_273_850.cpp"),
    # ASCII to EBCDIC code page 037 for ToEbcdic: 7-bit bytes as IBM037 has them, except eight
    # characters at the system's own places; of the 8-bit bytes only the umlauts Ä, Ö, Ü are
    # kept (at the places of "[", "\", "]"), every other one becomes 0x07.
    dict(name="ascii_to_ebcdic037", source="ISO-8859-1", target="IBM037", default=0x07,
         inputs=range(0x80),
         overrides={0x5B: 0xBB, 0x5C: 0xBC, 0x5D: 0xBD, 0x5E: 0x6A, 0x60: 0x4A, 0x7B: 0xFB,
                    0x7D: 0xFD, 0x7E: 0xFF, 0xC4: 0xBB, 0xD6: 0xBC, 0xDC: 0xBD},
         output="src/common/ebcdic_tables.cpp"),
    # Its inverse for ToAscii over the bytes 0x00 to 0x7E; EBCDIC bytes it never produces give
    # 0xFE; 0x13 gives 0x12 and 0x07 (where DEL and the 8-bit bytes land) gives 0x07.
    dict(name="ebcdic037_to_ascii", source="IBM037", target="ISO-8859-1", default=0xFE,
         inverse_of="ascii_to_ebcdic037", inverse_inputs=range(0x7F),
         overrides={0x13: 0x12, 0x07: 0x07},
         output="src/common/ebcdic_tables.cpp"),
]


class Iconv:
    """One conversion of the C library's iconv (the library behind the iconv command)."""

    def __init__(self, source, target):
        self.lib = ctypes.CDLL(ctypes.util.find_library("c"), use_errno=True)
        self.lib.iconv_open.restype = ctypes.c_void_p
        self.lib.iconv_open.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
        self.lib.iconv.restype = ctypes.c_size_t
        self.lib.iconv.argtypes = [ctypes.c_void_p] + [ctypes.c_void_p] * 4
        self.lib.iconv_close.argtypes = [ctypes.c_void_p]
        self.cd = self.lib.iconv_open(target.encode(), source.encode())
        if self.cd in (None, ctypes.c_void_p(-1).value):
            sys.exit("iconv cannot convert %s to %s" % (source, target))

    def convert(self, b):
        """The byte iconv makes of byte b, or None when it has no single-byte counterpart."""
        self.lib.iconv(self.cd, None, None, None, None)  # back to the initial state
        inbuf = ctypes.create_string_buffer(bytes([b]), 1)
        outbuf = ctypes.create_string_buffer(8)
        inptr = ctypes.c_char_p(ctypes.addressof(inbuf))
        outptr = ctypes.c_char_p(ctypes.addressof(outbuf))
        inleft = ctypes.c_size_t(1)
        outleft = ctypes.c_size_t(8)
        r = self.lib.iconv(self.cd, ctypes.byref(inptr), ctypes.byref(inleft),
                           ctypes.byref(outptr), ctypes.byref(outleft))
        if r == ctypes.c_size_t(-1).value or inleft.value != 0 or outleft.value != 7:
            return None
        return outbuf.raw[0]

    def close(self):
        self.lib.iconv_close(self.cd)


def convert_byte_command(source, target, b):
    """The same through the iconv command (slower; used by --verify)."""
    r = subprocess.run(["iconv", "-f", source, "-t", target], input=bytes([b]),
                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
    if r.returncode != 0 or len(r.stdout) != 1:
        return None
    return r.stdout[0]


def check_iconv(names):
    listing = subprocess.run(["iconv", "-l"], stdout=subprocess.PIPE, check=True,
                             text=True).stdout
    known = {n.strip().rstrip("/").upper() for line in listing.splitlines()
             for n in line.split(",") if n.strip()}
    missing = [n for n in names if n.upper() not in known]
    if missing:
        sys.exit("iconv does not know the code pages: " + ", ".join(missing))


def build(defn, built):
    default = defn["default"]
    table = [default] * 256
    if "inverse_of" in defn:
        other = built[defn["inverse_of"]]
        other_default = next(d["default"] for d in TABLES if d["name"] == defn["inverse_of"])
        # Descending, so that the lowest input byte wins; an output that the other table gives
        # only as its default for "no counterpart" is not a counterpart.
        for s in sorted(defn.get("inverse_inputs", range(256)), reverse=True):
            if other[s] != other_default or s in defn["overrides"].values():
                table[other[s]] = s
    else:
        conv = Iconv(defn["source"], defn["target"])
        for b in defn.get("inputs", range(256)):
            t = conv.convert(b)
            if VERIFY:
                assert t == convert_byte_command(defn["source"], defn["target"], b), (defn, b)
            if t is not None:
                table[b] = t
        conv.close()
    for k, v in defn["overrides"].items():
        table[k] = v
    return table


def render(path, defs, built):
    lines = [
        "// Generated by scripts/gen_codepages.py from the system's iconv code pages; do not edit.",
        "// Regenerate with: python3 scripts/gen_codepages.py",
        "// clang-format off",
        "",
    ]
    for d in defs:
        ov = ", ".join("0x%02X->0x%02X" % (k, v) for k, v in sorted(d["overrides"].items()))
        lines.append("// %s: %s to %s, no counterpart 0x%02X, overrides %s" %
                     (d["name"], d["source"], d["target"], d["default"], ov or "none"))
        lines.append("extern const unsigned char %s[256];" % d["name"])
        lines.append("const unsigned char %s[256] = {" % d["name"])
        t = built[d["name"]]
        for row in range(0, 256, 16):
            lines.append("    " + ", ".join("0x%02X" % x for x in t[row:row + 16]) +
                         ",  // 0x%02X" % row)
        lines.append("};")
        lines.append("")
    lines.append("// clang-format on")
    return "\n".join(lines) + "\n"


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--check", action="store_true", help="compare instead of writing")
    ap.add_argument("--verify", action="store_true",
                    help="also convert every byte with the iconv command and compare")
    args = ap.parse_args()
    global VERIFY
    VERIFY = args.verify
    check_iconv(sorted({d[k] for d in TABLES if "inverse_of" not in d
                        for k in ("source", "target")}))
    built = {}
    for d in TABLES:
        built[d["name"]] = build(d, built)
    outputs = {}
    for d in TABLES:
        outputs.setdefault(d["output"], []).append(d)
    stale = []
    for out, defs in outputs.items():
        text = render(out, defs, built)
        path = os.path.join(ROOT, out)
        if args.check:
            with open(path, encoding="ascii") as f:
                if f.read() != text:
                    stale.append(out)
        else:
            with open(path, "w", encoding="ascii") as f:
                f.write(text)
            print("wrote", out)
    if stale:
        sys.exit("stale generated files: " + ", ".join(stale))


if __name__ == "__main__":
    main()
