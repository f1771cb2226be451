"""The shared tables, written by the command-line tool in another process."""
import os
import pathlib
import signal
import subprocess
import sys
import threading
import time

import pytest

import bgpcommon

BUILD = pathlib.Path(bgpcommon.__file__).resolve().parents[2]
TOOL = BUILD / "bin" / "bgpcommon"
EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples" / "python"
pytestmark = pytest.mark.skipif(not TOOL.exists(), reason="the bgpcommon tool is not built beside the module")


def start_writer(root, name, records, hold, first=1):
    """Starts a writer and returns once it has written its records."""
    p = subprocess.Popen([str(TOOL), "igp-results", "write", name, "--root", str(root), "--records", str(records),
                          "--first", str(first), "--hold", str(hold)], stdout=subprocess.PIPE, text=True)
    assert p.stdout.readline().startswith(f"wrote {records} records")
    p.stdout.close()  # nothing more is printed; an open pipe would outlive the test
    return p


def test_reads_what_another_process_wrote(tmp_path):
    writer = start_writer(tmp_path, "vrf1", 50, 5)
    try:
        table = bgpcommon.IgpResultTable("vrf1", root=tmp_path)  # any path os.open takes
        records = table.values()
        assert table.writer_open and len(table) == len(records) == 50
        # Record for record what the tool itself reads back.
        shown = subprocess.run([str(TOOL), "igp-results", "show", "vrf1", "--long", "--root", str(tmp_path)],
                               check=True, capture_output=True, text=True).stdout.splitlines()
        assert [str(r) for r in records] == shown
        ns = bgpcommon.namespace()
        assert all(table.get(r.key) == table[r.key] == r and r.key in table and eval(repr(r), ns) == r
                   for r in records)
        assert list(table) == table.keys() == list(range(1, 51)) == [k for k, _ in table.items()]
        r = table[7]
        assert r.tag == 70 and int(r.key) == 7 and r.metric == 21 and r.isisLevel == "levelUnset"
        assert r.community == [0xFDE80007, 0xFDE80008] and [str(c) for c in r.community] == ["65000:7", "65000:8"]
        assert r.to_dict()["community"] == ["65000:7", "65000:8"]
        assert 51 not in table and table.get(51) is None and table.get(51, "-") == "-" and "7" not in table
        pytest.raises(KeyError, table.__getitem__, 51)
    finally:
        writer.kill()
        writer.wait()


@pytest.mark.parametrize("root, name, error", [
    ("missing", "vrf1", FileNotFoundError),
    ("file", "vrf1", NotADirectoryError),
    (".", "nothing", FileNotFoundError),
    ("\0/elsewhere", "vrf1", ValueError),  # the file system would read the root as ending at the NUL
])
def test_missing_table_fails_loudly(tmp_path, root, name, error):
    (tmp_path / "file").write_text("")
    with pytest.raises(error):
        bgpcommon.IgpResultTable(name, root=str(tmp_path / root))
    with pytest.raises(error):
        bgpcommon.FilteredRouteTable(name, root=str(tmp_path / root))


def test_changes_follow_a_writer(tmp_path):
    table = bgpcommon.IgpResultTable("vrf2", root=str(tmp_path), missing_ok=True)  # before the table exists
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
    assert table.keys() == [10, 11] and table.changes() == []
    assert not table.wait(0) and not table.wait(0.01)


def test_wait_lets_other_threads_read_and_ends_as_asked(tmp_path):
    start_writer(tmp_path, "vrf4", 500, 0).wait()
    with bgpcommon.IgpResultTable("vrf4", root=str(tmp_path)) as table:
        table.changes()
        for bad in (-1, float("nan")):
            pytest.raises(ValueError, table.wait, bad)
        # One thread waits with no end; the other reads the whole table meanwhile (the wait held the
        # reader's lock for its whole length before).
        waiting = threading.Thread(target=lambda: pytest.raises(ValueError, table.wait), daemon=True)
        waiting.start()
        time.sleep(0.1)
        assert len(table.values()) == 500 and waiting.is_alive()
    waiting.join(10)  # closing the table ends the wait
    assert not waiting.is_alive()
    pytest.raises(ValueError, len, table)


def test_ctrl_c_ends_a_wait(tmp_path):
    start_writer(tmp_path, "vrf5", 1, 0).wait()
    code = ("import bgpcommon, time, threading\n"
            f"t = bgpcommon.IgpResultTable('vrf5', root={str(tmp_path)!r}); t.changes()\n"
            # A thread still waiting while the process exits (slowly: longer than a slice of the wait).
            "threading.Thread(target=t.wait, daemon=True).start()\n"
            "class SlowExit:\n    def __del__(self): time.sleep(0.2)\nslow = SlowExit()\n"
            "print('waiting', flush=True)\n"
            "try:\n    t.wait(float('inf'))\nexcept KeyboardInterrupt:\n    print('interrupted')\n")
    p = subprocess.Popen([sys.executable, "-c", code], stdout=subprocess.PIPE, text=True)
    assert p.stdout.readline() == "waiting\n"
    time.sleep(0.2)
    p.send_signal(signal.SIGINT)
    assert p.communicate(timeout=10)[0] == "interrupted\n"  # a generous cap: an endless wait hangs here
    assert p.returncode == 0


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
    assert table.keys() == list(range(2, 21))
    assert reports and all(isinstance(m, str) for m in reports)
    assert table.get(1) is None and table.get(2) is not None
    with pytest.raises(bgpcommon.TableCorruptionError):
        list(bgpcommon.IgpResultTable("vrf3", root=str(tmp_path)))


def test_filtered_routes_of_the_demo(tmp_path):
    subprocess.run([str(TOOL), "demo", "--routes", "20", "--root", str(tmp_path)], check=True, capture_output=True)
    table = bgpcommon.FilteredRouteTable("static", root=str(tmp_path))
    keys = table.keys()
    assert keys and keys == sorted(keys) and all(table[k].key == k and str(k) in table for k in keys)


def test_follow_example(tmp_path):
    writer = start_writer(tmp_path, "vrf6", 3, 1.0)
    out = subprocess.run([sys.executable, str(EXAMPLES / "follow_igp_results.py"), "vrf6", "--root", str(tmp_path),
                          "--seconds", "5"], check=True, capture_output=True, text=True,
                         env=dict(os.environ, PYTHONPATH=str(BUILD / "python"))).stdout
    writer.wait()
    assert out.splitlines()[:4] == ["3 records", "1 tag 10", "2 tag 20", "3 tag 30"] and "writer closed" in out
