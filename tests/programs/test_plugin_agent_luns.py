# `plugin_agent luns`, with a /sys/block of the test's own.

import json
import os
import pathlib
import random

import pytest

from support.calls import LUN, LUN_NAA
from support.program import PLUGIN_AGENT, run

SEEN_NAA = "60014051a2b3c4d5e6f7a8b9c0de1f2a"  # of LUN, as the kernel's target has it
NAA = (3, 0, bytes.fromhex(SEEN_NAA))
T10 = (1, 0, b"LIO-ORG finance:" + LUN.encode() + b"\0")
EUI = (2, 0, bytes.fromhex("0011223344556677"))
PORT = (3, 1, bytes.fromhex("5001405000000001"))  # an NAA too, and not the LUN's


def page_80(serial):
    return bytes([0, 0x80, *len(serial).to_bytes(2, "big")]) + serial.encode()


def page_83(*designators):
    parts = [bytes([2 if kind in (1, 8) else 1, where << 4 | kind, 0, len(text)]) + text
             for kind, where, text in designators]
    return bytes([0, 0x83, *sum(map(len, parts)).to_bytes(2, "big")]) + b"".join(parts)


class Disks:
    """A folder like /sys/block; show() mounts it there."""

    def __init__(self):
        self.path = pathlib.Path("/tmp/block")

    def add(self, name, device="8:0", below=(), sectors=32768, **files):
        """A block device on which those in `below` lie; with `files` of its SCSI device, a disk."""
        folder = self.path / name
        (folder / "holders").mkdir(parents=True)
        (folder / "dev").write_text(f"{device}\n")
        (folder / "size").write_text(f"{sectors}\n")
        for each in below:
            (self.path / each / "holders" / folder.name).mkdir()
        for file, content in {**({"type": "0\n", "vendor": "LIO-ORG \n"} if files else {}), **files}.items():
            path = folder / "device" / file
            path.parent.mkdir(exist_ok=True)
            path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return folder

    def show(self, *options):
        if pathlib.Path("/proc/self/uid_map").read_text().split()[2] == "1":
            pytest.skip("/sys cannot be mounted over")
        assert run("mount", "--bind", self.path, "/sys/block").status == 0
        shown = run(PLUGIN_AGENT, "luns", *options)
        assert shown.status == 0, shown.err
        return shown

    def listed(self):
        return [json.loads(line) for line in self.show("-o", "json").out.splitlines()]


def test_one_row_for_each_lun_with_what_is_mounted_on_it(volume):
    """By partition, LVM and multipath."""
    number = os.stat(volume.path).st_dev
    disks = Disks()
    pages = {"vpd_pg80": page_80(LUN), "vpd_pg83": page_83(T10, NAA, PORT), "scsi_level": "6\n"}
    for name in ("sdb", "sda"):
        disks.add(name, **pages)
        (disks.add(f"{name}/{name}1") / "partition").write_text("1\n")
    joined = disks.add("dm-0", below=["sda/sda1", "sdb/sdb1"])
    (joined / "dm").mkdir()
    (joined / "dm/uuid").write_text(f"mpath-3{SEEN_NAA}\n")
    (joined / "dm/name").write_text("mpatha\n")
    disks.add("dm-1", device=f"{os.major(number)}:{os.minor(number)}", below=["dm-0"])
    disks.add("sdc", sectors=2 << 30, vpd_pg80=page_80("S1"), vendor="ATA     \n")
    disks.add("sr0", type="5\n", vpd_pg80=page_80("S2"))
    disks.add("vda")
    first, second = disks.listed()
    assert (first["lun"], first["page_80"], first["page_83"]) == (LUN, LUN, SEEN_NAA)
    assert (first["device"], first["paths"]) == ("/dev/mapper/mpatha", ["sda", "sdb"])
    assert (first["file_systems"], first["bytes"], first["vendor"]) == ([str(volume.path)], "16777216", "LIO-ORG")
    assert [each["association"] for each in first["designators"]] == ["LUN", "LUN", "port"]
    assert (second["lun"], second["device"], second["file_systems"]) == ("S1", "/dev/sdc", [])
    lines = run(PLUGIN_AGENT, "luns").out.splitlines()
    assert lines[1].split() == [LUN, SEEN_NAA, "/dev/mapper/mpatha", "sda,", "sdb", "16", "MiB", "LIO-ORG",
                                str(volume.path)]


def test_shows_the_identifier_that_names_the_lun_best():
    disks = Disks()
    named = [({"vpd_pg83": page_83(PORT, EUI, NAA)}, SEEN_NAA), ({"vpd_pg83": page_83(T10, EUI)}, EUI[2].hex()),
             ({"vpd_pg83": page_83(PORT, T10)}, T10[2][:-1].decode()), ({"vpd_pg83": page_83(PORT)}, ""),
             ({"vpd_pg80": page_80("  A 1 \0")}, "A 1"), ({"vpd_pg80": page_80("A\n\x1b")}, r"A\x0a\x1b"),
             ({"wwid": f"naa.{SEEN_NAA}\n", "scsi_level": "6\n"}, SEEN_NAA), ({"scsi_level": "6\n"}, "")]
    for letter, (files, _) in zip("abcdefgh", named):
        disks.add(f"sd{letter}", model=f"{letter}\n", **files)
    assert [lun["lun"] for lun in disks.listed()] == [name for _, name in named]


def test_pages_with_wrong_lengths_do_no_harm():
    disks, chance = Disks(), random.Random(1)
    pages = {"vpd_pg80": page_80(LUN), "vpd_pg83": page_83(T10, NAA, (10, 0, b"\0"), PORT)}
    cut = {file: [page[:length] for length in range(len(page))] for file, page in pages.items()}
    wild = [bytes([0, 0x83]) + chance.randbytes(chance.randrange(300)) for _ in range(100)]
    for number, (file, page) in enumerate([*((file, page) for file in cut for page in cut[file]),
                                           *(("vpd_pg83", page) for page in wild)]):
        disks.add(f"sd{number}", **{file: page, "model": f"{number}\n"})
    luns = disks.listed()
    assert len(luns) == sum(map(len, cut.values())) + len(wild)
    assert all(lun["problem"] in ("page 80h is cut short", "page 80h is no such page")
               for lun in luns[:len(cut["vpd_pg80"])])


def test_check_compares_the_luns_with_the_disks(volume):
    number = os.stat(volume.path).st_dev
    disks = Disks()
    disks.add("sda", device=f"{os.major(number)}:{os.minor(number)}", vpd_pg80=page_80(LUN), vpd_pg83=page_83(NAA))
    disks.show()

    def found(lun, *options):
        checked = run(PLUGIN_AGENT, "check", "--appliance", "127.0.0.1", "--lun", lun, *options, "-o", "json")
        return [(each["result"], each["found"]) for each in json.loads(checked.out)["checks"]
                if each["what"] == f"LUN {lun}"][1:]  # what the appliances say comes first
    assert found(LUN, "--fs", volume.path) == [("OK", f"is /dev/sda, with {volume.path}")]
    assert found(LUN) == [("WARNING", f"is /dev/sda, and {volume.path} on it is not frozen")]
    for naa in (SEEN_NAA, LUN_NAA):  # the latter is the daemon's
        assert [result for result, _ in found(naa, "--fs", volume.path)] == ["WARNING", "OK"]
    assert found("other") == [("WARNING", "not found among this host's SCSI disks by page 80h or 83h")]
