"""tools/tessaro-check: a clean installation passes, and each kind of mistake is reported at its place."""
import os
import socket
import subprocess
import sys
from pathlib import Path

import pytest

TOOL = Path(__file__).resolve().parents[2] / "tools" / "tessaro-check"
EXAMPLE = Path(__file__).resolve().parents[2] / "examples" / "installation"

INPUT = ".config/baseInternalInputTags.csv"
OUTPUT = ".config/baseInternalOutputTags.csv"
INTERNAL = ".config/baseInternalTags.csv"
EC = "tessaroserver/config/ECOutputTags.csv"
EG = "tessaroserver/config/EGOutputTags.csv"
APP = "tessaroserver/config/app.csv"
KEYS = "tessaroserver/config/keys.csv"
REMOTES = "tessaroserver/config/remotes.csv"
MANIFEST = "handheld/manifest.csv"

TAG_HEADER = ("tag;label;startByte;byteSize;startBit;bitSize;dataType\n"
              "Name;Label;First byte;Bytes;First bit;Bits;Type\n")
SERVER_TAGS = ("bu_identity", "bu_state", "armed_ru", "tsaps", "unarmed_rus", "eglink_stat_out", "eclink_status",
               "clink_status", "ru_state", "BCSR", "BUID", "IFTY", "IVL1", "IVL2", "IVL3", "total_rus", "eglink_status")


def clean_files():
    rows = "".join(f"{name};;{2 * index};2;0;0;UINT\n" for index, name in enumerate(SERVER_TAGS))
    return {
        INPUT: TAG_HEADER + rows,
        OUTPUT: TAG_HEADER,
        INTERNAL: TAG_HEADER,
        EC: TAG_HEADER,
        EG: TAG_HEADER + "eg_a;;0;4;0;0;UINT\n",
        APP: "tag;value;from\nKey;Value;Origin\nEMAP;7;local\nFMAP;3;RGP\nEGDH;0;local\nSID1;a long network name;local\n",
        KEYS: "tag;value;from\nKey;Value;Origin\n",
        REMOTES: "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nRow;Id;1;2;3;4\n0;10;0;0;0;0\n1;11;0;0;0;0\n",
        MANIFEST: "target;ru\ntype;user\n",
    }


def write(folder, files):
    for name, text in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(text.encode("latin-1"))


def run(*arguments):
    return subprocess.run([sys.executable, str(TOOL), *map(str, arguments)], capture_output=True, text=True, timeout=120)


def findings(folder, *arguments):
    result = run(folder, *arguments)
    assert result.stderr == ""
    lines = [line.removeprefix(str(folder) + "/") for line in result.stdout.splitlines()]
    assert result.returncode == (1 if lines else 0)
    return lines


def test_a_clean_installation_has_no_findings(tmp_path):
    write(tmp_path, clean_files())
    assert findings(tmp_path) == []


def test_the_example_installation_is_clean():
    result = run(EXAMPLE)
    assert result.stdout == ""
    assert result.returncode == 0


ADDED_TAG = [
    # (row added to the input tags, column, reason); line 20 is the first one after the tags of the server
    ("x;;34;3;0;0;UINT", 7, "unsupported size 3 for UINT"),
    ("x;;34;3;0;0;INT", 7, "unsupported size 3 for INT"),
    ("x;;34;2;0;0;REAL", 7, "unsupported size 2 for REAL"),
    ("x;;34;8;0;0;BE_BOOLEAN", 7, "unsupported size 8 for BE_BOOLEAN"),
    ("x;;34;2;0;0;uint", 13, "unsupported data type 'uint'"),
    ("x;;34;2;0;0", 1, "unsupported data type ''"),
    ("x;;34;1;4;5;UINT", 9, "bit field outside its bytes: bits 4 to 8 of 8"),
    ("x;;34;1;8;0;BOOLEAN", 9, "bit field outside its bytes: bits 8 to 8 of 8"),
    ("x;;491;2;0;0;UINT", 4, "bytes 491 to 492 lie outside the image of 492, the largest while EMAP is not 0"),
    ("x;;32;2;0;0;UINT", 4, "tag 'x' overlaps 'eglink_status' of line 19"),
    ("x;;33;1;0;1;UINT", 4, "tag 'x' overlaps 'eglink_status' of line 19"),
    ("x;;a;2;0;0;UINT", 4, "'a' is not a number from 0 to 65535"),
    ("x;;70000;2;0;0;UINT", 4, "'70000' is not a number from 0 to 65535"),
    (";;34;2;0;0;UINT", 1, "empty key: the row is skipped"),
    ("x;;34;2;0;0;UINT;more", 18, "more fields than columns: the row is skipped"),
    ("", 1, "blank line: it becomes a row of its own"),
    (" x;;34;2;0;0;UINT", 1, "blanks around the key belong to it: it will not be found"),
    ("x;gr\xfcn;34;2;0;0;UINT", 5, "character outside ASCII"),
]


@pytest.mark.parametrize("row, column, reason", ADDED_TAG, ids=[row[2][:40] + str(i) for i, row in enumerate(ADDED_TAG)])
def test_a_wrong_tag_is_reported(tmp_path, row, column, reason):
    files = clean_files()
    files[INPUT] += row + "\n"
    write(tmp_path, files)
    assert findings(tmp_path) == [f"{INPUT}:20:{column}: {reason}"]


@pytest.mark.parametrize("rows", [
    pytest.param("a;;34;1;0;4;UINT\nb;;34;1;4;4;UINT\n", id="two bit fields share a byte"),
    pytest.param("a;;34;1;0;0;BOOLEAN\nb;;34;1;1;0;BOOLEAN\n", id="two booleans share a byte"),
    pytest.param("a;;34;3;0;20;INT\n", id="signed bit field of three bytes"),
    pytest.param("a;;34;11;0;0;STRING\nb;;45;7;0;0;RAW\n", id="texts and raw bytes of any size"),
    pytest.param("a;;488;4;0;0;UINT\n", id="last bytes of the image"),
])
def test_unusual_but_sound_tags_pass(tmp_path, rows):
    files = clean_files()
    files[INPUT] += rows
    write(tmp_path, files)
    assert findings(tmp_path) == []


@pytest.mark.parametrize("last, expected", [
    pytest.param("502;2", [], id="last byte of the largest frame"),
    pytest.param("503;2", [f"{INPUT}:20:4: bytes 503 to 504 lie outside the image of 504"], id="one byte further"),
])
def test_without_a_machine_controller_the_image_may_fill_a_frame(tmp_path, last, expected):
    files = clean_files()
    files[APP] = files[APP].replace("EMAP;7;", "EMAP;0;")
    files[INPUT] += f"x;;{last};0;0;UINT\n"
    write(tmp_path, files)
    assert [line.replace(str(tmp_path) + "/", "") for line in findings(tmp_path)] == expected


def test_the_image_size_can_be_given(tmp_path):
    write(tmp_path, clean_files())
    assert findings(tmp_path, "--image-size", "33") == [f"{INPUT}:19:16: bytes 32 to 33 lie outside the image of 33"]


def test_a_tag_that_the_server_needs_is_missed(tmp_path):
    files = clean_files()
    files[INPUT] = files[INPUT].replace("armed_ru;", "armed_rx;")
    write(tmp_path, files)
    assert findings(tmp_path) == [f"{INPUT}:1:1: missing tag 'armed_ru', which the server needs"]


def test_a_tag_may_stand_in_one_file_only(tmp_path):
    files = clean_files()
    files[OUTPUT] += "bu_state;;0;2;0;0;UINT\n"
    write(tmp_path, files)
    assert findings(tmp_path) == [f"{OUTPUT}:3:1: duplicate tag 'bu_state', first in {tmp_path}/{INPUT}:4"]


CHANGES = [
    (INPUT, "startByte", "firstByte", [":1:1: wrong header: column 'startByte' is missing",
                                       ":1:11: unknown column 'firstByte'"]),
    (INPUT, "label", "tag", [":1:5: unknown column 'tag'", ":1:5: wrong header: column 'tag' stands twice"]),
    (EG, "0;4;0;0;UINT", "125204;4;0;0;UINT", [":3:7: '125204' is not a number from 0 to 65535"]),
    (EC, TAG_HEADER, TAG_HEADER + "x;;203;2;0;0;UINT\n", [":3:4: bytes 203 to 204 lie outside the image of 204"]),
    (APP, "EMAP;7;local\n", "", [":1:1: missing key 'EMAP': the server ends at the first identity"]),
    (APP, "FMAP;3;RGP\n", "", [":1:1: missing key 'FMAP': the server ends at the first command of a remote unit"]),
    (APP, "EGDH;0;local\n", "", [":1:1: missing key 'EGDH': the base controller is told a new address every 2 s"]),
    (APP, "EMAP;7;local", "EMAP;seven;local", [":3:6: 'seven' of 'EMAP' is not a number from 0 to 65535"]),
    (APP, "EMAP;7;local", "EMAP;55;BC", [":3:9: 'EMAP' is read as text: what comes from BC is four bytes, which read 7"]),
    (APP, "FMAP;3;RGP", "FMAP;3;local", [":4:8: 'FMAP' is read as a number: it must come from BC or RGP"]),
    (APP, "FMAP;3;RGP", "FMAP;three;RGP", [":4:6: 'three' of 'FMAP' is not a number of 32 bits"]),
    (APP, "FMAP;3;RGP", "FMAP;4294967296;RGP", [":4:6: '4294967296' of 'FMAP' is not a number of 32 bits"]),
    (APP, "SID1;a long", "NAME;a long", [":6:6: 'NAME' is longer than 4 bytes: when the base controller asks for it, "
                                         "the server ends"]),
    (APP, "EGDH;0;local", "EGDH;0;local\nEGDH;1;local", [":6:1: duplicate key 'EGDH', first in line 5"]),
    (APP, "tag;value;from", "tag;value;origin", [":1:1: wrong header: column 'from' is missing",
                                                 ":4:1: 'FMAP' is read as a number: it must come from BC or RGP"]),
    (REMOTES, "1;11;", "1;10;", [":4:3: duplicate RUID 10, first in line 3"]),
    (REMOTES, "1;11;", "1;0;", [":4:3: RUID 0 is not a number from 1 to 65535"]),
    (REMOTES, "1;11;", "2;11;", [":4:1: ruindex 2 in row 1"]),
    (REMOTES, "1;11;0;", "1;11;secret;", [":4:6: 'secret' is not a number of 32 bits"]),
    (REMOTES, "RUID;", "RUIDX;", [":1:1: wrong header: expected ruindex;RUID;PKY1;PKY2;PKY3;PKY4"]),
    (MANIFEST, "type;user\n", "", [":1:1: manifest without 'type'"]),
    (MANIFEST, "target;ru\n", "target;ru\ntarget;ru\n", [":2:1: 'target' stands twice: the last one counts"]),
    (MANIFEST, "type;user", "type;users", [":2:6: type 'users' is neither 'user' nor 'system'"]),
    (MANIFEST, "type;user", "type;user\nname;a;b", [":3:1: not a key and a value separated by one ';': the line is "
                                                    "ignored"]),
]


@pytest.mark.parametrize("name, old, new, expected", CHANGES, ids=[f"{i}-{c[3][0][:50]}" for i, c in enumerate(CHANGES)])
def test_a_wrong_file_is_reported(tmp_path, name, old, new, expected):
    files = clean_files()
    assert old in files[name]
    files[name] = files[name].replace(old, new, 1)
    write(tmp_path, files)
    assert findings(tmp_path) == [name + tail for tail in expected]


@pytest.mark.parametrize("name", [INPUT, EG, APP, KEYS, REMOTES])
def test_a_missing_file_is_reported(tmp_path, name):
    write(tmp_path, clean_files())
    (tmp_path / name).unlink()
    assert any(line.startswith(f"{name}:1:1: missing file") for line in findings(tmp_path))


@pytest.mark.parametrize("text", ["", "tag;value;from\n"])
def test_a_file_without_its_two_header_lines_is_reported(tmp_path, text):
    files = clean_files()
    files[KEYS] = text
    write(tmp_path, files)
    assert findings(tmp_path) == [
        f"{KEYS}:1:1: wrong header: a line of column keys and a line of descriptions are needed"]


def test_a_second_user_application_is_reported(tmp_path):
    files = clean_files()
    files["tablet/manifest.csv"] = "target;ru\ntype;user\n"
    write(tmp_path, files)
    assert findings(tmp_path) == [f"tablet/manifest.csv:1:1: second user application for remote units, first "
                                  f"{tmp_path}/{MANIFEST}: only one is compared"]


def test_applications_in_hidden_folders_are_left_alone(tmp_path):
    """Nobody finds them: a copy that is just being packed is no second application."""
    write(tmp_path, clean_files())
    write(tmp_path, {".handheld.pairing/handheld/manifest.csv": "target;ru\ntype;user\n"})
    assert findings(tmp_path) == []


def test_explain_tells_what_a_key_does():
    result = run("--explain", "FMAP")
    assert result.returncode == 0
    assert result.stdout.startswith("FMAP: app.csv, number from BC or RGP, needed")


def test_explain_of_an_unknown_key_lists_the_known_ones():
    result = run("--explain", "NOPE")
    assert result.returncode == 1
    assert "EMAP" in result.stderr


def test_a_folder_that_is_none_is_an_error(tmp_path):
    assert run(tmp_path / "nowhere").returncode == 2


def put_pipe(path):
    os.mkfifo(path)


def put_socket(path):
    with socket.socket(socket.AF_UNIX) as listener:
        before = os.getcwd()
        os.chdir(path.parent)  # the path of a socket is short
        listener.bind(path.name)
        os.chdir(before)


def put_device(path):
    path.symlink_to("/dev/full")


IN_THE_PLACE_OF_A_FILE = [(put_pipe, "a pipe"), (put_socket, "a socket"), (put_device, "a device"), (Path.mkdir, "a folder")]


@pytest.mark.parametrize("put, kind", IN_THE_PLACE_OF_A_FILE, ids=[kind for _, kind in IN_THE_PLACE_OF_A_FILE])
@pytest.mark.parametrize("name", [INPUT, EG, APP, KEYS, REMOTES, MANIFEST])
def test_what_is_no_regular_file_is_reported_unopened(tmp_path, name, put, kind):
    write(tmp_path, clean_files())
    (tmp_path / name).unlink()
    put(tmp_path / name)
    assert f"{name}:1:1: is {kind} and no regular file: the server refuses it" in findings(tmp_path)


@pytest.mark.parametrize("put, kind", IN_THE_PLACE_OF_A_FILE[:3], ids=[kind for _, kind in IN_THE_PLACE_OF_A_FILE[:3]])
def test_an_application_has_nothing_that_cannot_be_hashed(tmp_path, put, kind):
    write(tmp_path, clean_files())
    (tmp_path / "handheld" / "screens").mkdir()
    put(tmp_path / "handheld" / "screens" / "x")
    assert findings(tmp_path) == [f"handheld/screens/x:1:1: is {kind} and no regular file: the server leaves it out of the "
                                  "application's checksum"]


@pytest.mark.parametrize("name", ["app.csv", "keys.csv"])
def test_pairing_needs_files_and_no_folders(tmp_path, name):
    write(tmp_path, clean_files())
    (tmp_path / "handheld" / "config" / name).mkdir(parents=True)
    assert findings(tmp_path) == [f"handheld/config/{name}:1:1: is a folder and no regular file: the server refuses it"]


def test_a_file_that_is_larger_than_the_server_reads_is_reported(tmp_path):
    write(tmp_path, clean_files())
    with (tmp_path / KEYS).open("ab") as file:
        file.truncate(4 * 1024 * 1024 + 1)
    assert findings(tmp_path) == [f"{KEYS}:1:1: has more than 4194304 bytes: the server refuses it"]


@pytest.mark.parametrize("origin", ["BC", "RGP"])
def test_an_emap_that_becomes_no_number_is_reported(tmp_path, origin):
    files = clean_files()
    files[APP] = files[APP].replace("EMAP;7;local", f"EMAP;7;{origin}")
    write(tmp_path, files)
    assert findings(tmp_path) == [f"{APP}:3:8: 'EMAP' is read as text: what comes from {origin} is four bytes, no number, and "
                                  "counts as 0: the machine controller's link stays off"]


def test_the_image_may_be_as_large_as_without_the_link_that_such_an_emap_switches_off(tmp_path):
    files = clean_files()
    files[APP] = files[APP].replace("EMAP;7;local", "EMAP;7;BC")
    files[INPUT] += "x;;500;2;0;0;UINT\n"
    write(tmp_path, files)
    assert [line for line in findings(tmp_path) if "image" in line] == []


def test_every_tag_that_the_server_needs_is_explained(monkeypatch):
    monkeypatch.syspath_prepend(TOOL.parent)
    from tessarocheck import explanations, keys, tags
    assert set(explanations.EXPLAIN_TAGS) == set(tags.NEEDED)
    assert set(explanations.TEXT_KEYS) == set(keys.READ_AS_TEXT)


def test_it_packs_into_one_file_that_needs_no_other(tmp_path):
    packed = tmp_path / "tessaro-check"
    subprocess.run([TOOL.parents[1] / "scripts" / "pack-check", packed], check=True, timeout=120)
    assert [path.name for path in tmp_path.iterdir()] == ["tessaro-check"]
    done = subprocess.run([packed, EXAMPLE], capture_output=True, text=True, timeout=120, cwd="/")
    assert (done.stdout, done.stderr, done.returncode) == ("", "", 0)
    assert "needed" in subprocess.run([packed, "--explain", "EMAP"], capture_output=True, text=True, timeout=120).stdout
