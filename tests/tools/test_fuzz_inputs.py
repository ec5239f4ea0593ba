"""fuzz/inputs: kept inputs are packed the same by everybody, and none is lost when one is added."""
import io
import re
import subprocess
import sys
import tarfile
from pathlib import Path

import pytest

FUZZ = Path(__file__).resolve().parents[2] / "fuzz"
TARGETS = re.findall(r"^tessaro_add_fuzz_target\((\w+)", (FUZZ / "CMakeLists.txt").read_text(), re.MULTILINE)


def run(folder, *words, status=0):
    done = subprocess.run([sys.executable, FUZZ / "inputs", "--folder", folder, *map(str, words)], text=True,
                          capture_output=True, timeout=120)
    assert done.returncode == status, done.stderr
    return done.stdout + done.stderr


@pytest.fixture
def folder(tmp_path):
    pack(tmp_path, {"b": b"2", "a": b"\0\xff"})
    return tmp_path


def pack(folder, files, kind=tarfile.REGTYPE):
    with tarfile.open(folder / "frame.tar.xz", "w:xz") as archive:
        for name, content in files.items():
            member = tarfile.TarInfo(name)
            member.size, member.type, member.mtime = len(content), kind, 12345
            archive.addfile(member, io.BytesIO(content))


def content(folder):
    with tarfile.open(folder / "frame.tar.xz") as archive:
        return {member.name: archive.extractfile(member).read() for member in archive}


def test_an_added_input_stands_beside_the_others(folder, tmp_path):
    found = tmp_path / "crash-1"
    found.write_bytes(b"boom")
    assert "frame: 3 inputs" in run(folder, "add", "frame", found)
    assert content(folder) == {"a": b"\0\xff", "b": b"2", "crash-1": b"boom"}


def test_a_folder_is_added_file_by_file(folder, tmp_path):
    found = tmp_path / "work"
    (found / "below").mkdir(parents=True)
    (found / "c").write_bytes(b"3")
    run(folder, "add", "frame", found)
    assert content(folder) == {"a": b"\0\xff", "b": b"2", "c": b"3"}


def test_the_same_inputs_make_the_same_bytes(folder, tmp_path):
    other = tmp_path / "other"
    other.mkdir()
    pack(other, {"a": b"\0\xff", "c": b"3", "b": b"2"})
    (tmp_path / "c").write_bytes(b"3")
    (tmp_path / "d").write_bytes(b"4")
    run(folder, "add", "frame", tmp_path / "d", tmp_path / "c")
    run(other, "add", "frame", tmp_path / "d")
    assert (folder / "frame.tar.xz").read_bytes() == (other / "frame.tar.xz").read_bytes()


def test_nothing_new_leaves_the_archive_alone(folder, tmp_path):
    before = (folder / "frame.tar.xz").read_bytes()
    (tmp_path / "b").write_bytes(b"2")
    run(folder, "add", "frame", tmp_path / "b")
    assert (folder / "frame.tar.xz").read_bytes() == before


def test_an_input_is_removed_by_its_name(folder):
    run(folder, "remove", "frame", "a")
    assert content(folder) == {"b": b"2"}
    assert "frame has no input 'a'" in run(folder, "remove", "frame", "a", status=1)


@pytest.mark.parametrize("name", ["../outside", "below/a", "/absolute"])
def test_an_archive_with_a_path_in_it_is_refused(folder, tmp_path, name):
    pack(folder, {name: b"x"})
    assert "is no file beside the others" in run(folder, "list", "frame", status=1)


def test_an_archive_with_a_link_in_it_is_refused(folder):
    pack(folder, {"link": b""}, kind=tarfile.SYMTYPE)
    assert "is no file beside the others" in run(folder, "list", "frame", status=1)


def test_every_target_has_inputs_and_none_is_without_a_target():
    counts = dict(line.split() for line in run(FUZZ / "corpus", "list").splitlines())
    assert sorted(counts) == sorted(TARGETS)
    assert all(int(count) > 0 for count in counts.values())
