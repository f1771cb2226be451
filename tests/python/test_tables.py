"""The shared IGP result table, written by the command-line tool in another process."""
import pathlib
import subprocess
import time

import pytest

import bgpcommon

TOOL = pathlib.Path(bgpcommon.__file__).resolve().parent.parent / "bin" / "bgpcommon"
pytestmark = pytest.mark.skipif(not TOOL.exists(), reason="the bgpcommon tool is not built beside the module")


def start_writer(root, name, records, hold, first=1):
    """Starts a writer and returns once it has written its records."""
    p = subprocess.Popen([str(TOOL), "igp-results", "write", name, "--root", str(root), "--records", str(records),
                          "--first", str(first), "--hold", str(hold)], stdout=subprocess.PIPE, text=True)
    assert p.stdout.readline().startswith(f"wrote {records} records")
    return p


def test_reads_what_another_process_wrote(tmp_path):
    writer = start_writer(tmp_path, "vrf1", 50, 5)
    try:
        table = bgpcommon.IgpResultTable("vrf1", root=str(tmp_path))
        records = list(table)
        assert table.writer_open and len(table) == len(records) == 50
        # Record for record what the tool itself reads back.
        shown = subprocess.run([str(TOOL), "igp-results", "show", "vrf1", "--long", "--root", str(tmp_path)],
                               check=True, capture_output=True, text=True).stdout.splitlines()
        assert [str(r) for r in records] == shown
        ns = bgpcommon.namespace()
        assert all(table.get(r.key.value) == r and eval(str(r), ns) == r for r in records)
        assert [r.key.value for r in records] == list(range(1, 51))
        assert records[6].community == [(65000 << 16) + 7, (65000 << 16) + 8]
        assert table.get(51) is None
    finally:
        writer.kill()
        writer.wait()


def test_changes_follow_a_writer(tmp_path):
    table = bgpcommon.IgpResultTable("vrf2", root=str(tmp_path))  # before the table exists
    assert len(table) == 0 and not table.writer_open
    start_writer(tmp_path, "vrf2", 3, 0).wait()
    assert table.wait(5.0)
    assert table.changes()[0] == bgpcommon.RESYNC and len(table) == 3
    # A second run starts empty and writes other keys; the reader follows it without reopening.
    second = start_writer(tmp_path, "vrf2", 2, 0.5, first=10)
    seen = []
    deadline = time.monotonic() + 10
    while bgpcommon.WRITER_CLOSED not in seen and time.monotonic() < deadline:
        table.wait(0.5)
        seen += table.changes()
    second.wait()
    assert bgpcommon.WRITER_CLOSED in seen
    assert sorted(r.key.value for r in table) == [10, 11]
    assert table.changes() == []


def test_damaged_record_is_reported_not_fatal(tmp_path):
    start_writer(tmp_path, "vrf3", 20, 0).wait()
    path = tmp_path / "routing/rib/igpResultStatus/vrf3"
    data = bytearray(path.read_bytes())
    # Only record 1 holds the community (65000 << 16) + 1; change it where it lies. The record's checksum
    # no longer matches.
    at = data.find(((65000 << 16) + 1).to_bytes(4, "little"))
    assert at > 0
    data[at] ^= 0xFF
    path.write_bytes(bytes(data))

    reports = []
    table = bgpcommon.IgpResultTable("vrf3", root=str(tmp_path), on_corruption=reports.append)
    assert [r.key.value for r in table] == list(range(2, 21))
    assert reports and all(isinstance(m, str) for m in reports)
    assert table.get(1) is None and table.get(2) is not None
    with pytest.raises(bgpcommon.TableCorruptionError):
        list(bgpcommon.IgpResultTable("vrf3", root=str(tmp_path)))
