"""The tables of docs/wire-format.md name the fields of every wire structure: in the order of
pkgdist/wire_fields.hpp, from which the codec is made, with the types of the C structures."""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
HEADERS = ROOT / "pkgdist" / "include" / "pkgdist"
PAGE = ROOT / "docs" / "wire-format.md"

DESCRIPTION = re.compile(r"struct description<(?:struct )?(\w+)>.*?std::tuple\{(.*?)\};", re.DOTALL)
FIELD = re.compile(r"field\(&M::(\w+)(?:, &M::(\w+))?\)")
STRUCT = re.compile(r"struct (\w+) \{(.*?)\n\}", re.DOTALL)
MEMBER = re.compile(r"^  (?:const )?(\w+)(\**) (\w+);", re.MULTILINE)
ROW = re.compile(r"^\| (\d+) \| `(\w+)` \| (\w+) \|", re.MULTILINE)
TYPES = {"uint8_t": "u8", "uint32_t": "u32", "int32_t": "i32", "uint64_t": "u64", "char*": "string",
         "char**": "strings", "uint32_t*": "words", "uint8_t*": "bytes"}


def in_code():
    text = "".join((HEADERS / name).read_text(encoding="utf-8") for name in ("wire_ctrl.h", "wire_data.h"))
    types = {name: {member: TYPES[kind + stars] for kind, stars, member in MEMBER.findall(body)}
             for name, body in STRUCT.findall(text)}
    fields = DESCRIPTION.findall((HEADERS / "wire_fields.hpp").read_text(encoding="utf-8"))
    return {name: [(field, types[name][field]) for field, _ in FIELD.findall(body)] for name, body in fields}


def on_page(text):
    tables = {}
    for section in re.split(r"^### ", text, flags=re.MULTILINE)[1:]:
        name = re.match(r"`(\w+)`\n", section)[1]
        rows = ROW.findall(section)
        if [int(bit) for bit, _, _ in rows] != list(range(len(rows))):
            raise ValueError(f"{name}: the bits do not count from 0")
        tables[name] = [(field, kind) for _, field, kind in rows]
    return tables


class WireFormat(unittest.TestCase):
    def test_the_tables_are_the_structures(self):
        self.maxDiff = None
        self.assertEqual(on_page(PAGE.read_text(encoding="utf-8")), in_code())

    def test_all_structures_are_read(self):
        self.assertEqual(len(in_code()), 10)
        self.assertIn(("symlink", "u8"), in_code()["pkgdist_data_send_file_info"])


if __name__ == "__main__":
    unittest.main()
