"""Pairing and application transfer with the real binary: what a service tool gets, and what it leaves in the files."""

import json
import os
import subprocess
import sys

import pytest

from pairing_support import (NO_HANDLE, READY, SYSTEM, USER, file_in, install, md5, serve, serve_with_gate, table_in, words_of,
                             words_of_unit)
from tessarobench import pairwire
from tessarobench.board import APPLICATIONS
from tessarobench.installation import APP, KEYS, REMOTES
from tessarobench.namespaces import MS_BIND, mount, unmount
from tessarobench.servicetool import ANSWER_SECONDS, NoAnswer

from conftest import REPOSITORY

BUSY = "pairarchive: Unable to create tar. Another process is running."


@pytest.fixture
def pairing(bench):
    return serve(bench)


def contents(bench):
    """Every file of the installation, hidden ones included, with its content."""
    return {path: path.read_bytes() for path in bench.applications.glob("**/*") if path.is_file()}


def archives(bench):
    return sorted(path.name for path in bench.applications.glob("**/*.tar"))


def test_the_list_names_every_application_for_remote_units(pairing):
    (pairing.applications / "tessaroserver" / "manifest.csv").write_text("target;bu\ntype;system\n")
    install(pairing, "deeper", "user").rename(pairing.applications / "panel" / "inner")
    listed = {record["pairAppPath"]: record for record in pairing.tool.list() if "handset" not in record["pairAppPath"]}
    assert listed == {
        USER: {"pairAppPath": USER, "target": "ru", "type": "user", "name": "Panel"},
        SYSTEM: {"pairAppPath": SYSTEM, "target": "ru", "type": "system", "name": "Display"},
        f"{USER}/inner": {"pairAppPath": f"{USER}/inner", "target": "ru", "type": "user", "name": "Deeper"}}


def test_the_list_ignores_links_out_of_the_folder_and_unreadable_manifests(pairing, tmp_path):
    (tmp_path / "manifest.csv").write_text("target;ru\ntype;user\n")
    (pairing.applications / "linked").symlink_to(tmp_path)
    (pairing.applications / "empty").mkdir()
    (pairing.applications / "empty" / "manifest.csv").symlink_to("/nowhere")
    (pairing.applications / "folder" / "manifest.csv").mkdir(parents=True)
    paths = [record["pairAppPath"] for record in pairing.tool.list()]
    assert {USER, SYSTEM} <= set(paths)
    assert not any(path.endswith(("linked", "empty", "folder")) for path in paths)


def test_a_system_application_is_handed_out_as_it_is(pairing):
    before = (pairing.applications / REMOTES).read_bytes()
    offer, archive = pairing.tool.get(SYSTEM, 1003)
    assert (offer.name, offer.size, offer.md5) == ("display.tar", len(archive), md5(archive))
    original = pairing.applications / "display"
    for file in ("manifest.csv", "config/keys.csv", "config/app.csv"):
        assert file_in(archive, f"display/{file}") == (original / file).read_bytes()
    assert (pairing.applications / REMOTES).read_bytes() == before
    assert not pairing.server.logged("generated new keys")


def test_keys_are_equal_in_all_three_places_and_a_new_unit_gets_a_row(pairing, tmp_path):
    _, archive = pairing.tool.get(USER, 1003)
    words = words_of(table_in(archive, "panel/config/keys.csv", tmp_path))
    assert words == words_of(pairing.table("panel/config/keys.csv")) == words_of_unit(pairing, 1003)
    assert len(set(words)) == 4 and "0" not in words
    assert [(row["ruindex"], row["RUID"]) for row in pairing.table(REMOTES)] == [
        ("0", "1001"), ("1", "1002"), ("2", "1003")]
    line = f"PairServer generated new keys: 1003 (ruid) {words[0]} (pky1) {words[1]} (pky2) {words[2]} (pky3) {words[3]} (pky4)"
    pairing.server.wait_log(line, whole=True)
    assert pairing.server.texts().count(line) == 1
    for word in words:
        assert [text for text in pairing.server.texts() if word in text.split()] == [line]


def test_a_known_unit_keeps_its_row_and_two_pairings_differ(pairing):
    drawn = []
    for _ in range(2):
        pairing.tool.get(USER, 1002)
        drawn.append(words_of_unit(pairing, 1002))
    assert all(first != second for first, second in zip(*drawn))
    assert [row["RUID"] for row in pairing.table(REMOTES)] == ["1001", "1002"]
    assert words_of_unit(pairing, 1001) == ["0"] * 4


def test_settings_of_the_base_unit_go_with_the_application(bench, tmp_path):
    """Binary ones in decimal, a text of four characters as text, what is missing not at all, the rest untouched."""
    bench.change(APP, "CCH1", value=4294967295)
    bench.change(APP, "SID1", value="TZ40", from_="local")
    bench.change(KEYS, "WPA1", value="a pass phrase")
    bench.drop(APP, "CCH3")
    serve(bench)
    bench.bc.set(bu_identity=400)
    bench.server.wait_log("TessaroServer::initializeRgpCom")
    _, archive = bench.tool.get(USER, 1003)
    rows = {row["tag"]: row for row in table_in(archive, "panel/config/app.csv", tmp_path)}
    assert {tag: row["value"] for tag, row in rows.items()} == {
        "BUID": "400", "VOLT": "24", "CCH1": "4294967295", "CCH2": "6", "SID1": "TZ40", "WPA1": "a pass phrase"}
    assert (rows["BUID"]["remark"], rows["VOLT"]["remark"]) == ("Base unit", "kept")


def test_the_archive_is_gone_after_the_transfer_and_so_is_the_handle(pairing):
    offer = pairing.tool.ask(USER, 1003)
    assert archives(pairing) == ["panel.tar"]
    pairing.tool.fetch(offer)
    pairing.server.wait_log(f'Transfer complete of  "{USER}.tar"')
    assert archives(pairing) == []
    pairing.tool.start_transfer()
    pairing.server.wait_log(NO_HANDLE)


def test_pairing_survives_a_restart(pairing):
    pairing.tool.get(USER, 1003)
    words = words_of_unit(pairing, 1003)
    pairing.server.restart()
    pairing.server.wait_log(READY)
    assert words_of_unit(pairing, 1003) == words
    assert not pairing.server.logged("Invalid ruindex")
    pairing.tool.close()
    assert pairing.tool.get(SYSTEM, 1003)[0].name == "display.tar"


def test_unit_zero_is_refused(pairing):
    tool = pairing.service_tool(timeout=0.3)
    with pytest.raises(NoAnswer):
        tool.ask(USER, 0)
    pairing.server.wait_log(f'Send app, invalid ruId: 0 appPath: "{USER}"')
    assert words_of(pairing.table("panel/config/keys.csv")) == ["0"] * 4
    assert archives(pairing) == []


@pytest.mark.parametrize("path", [
    f"{USER}/", f"{USER}/..", f"{USER}/../panel", f"{APPLICATIONS}/missing", str(APPLICATIONS),
    f"{APPLICATIONS}/tessaroserver", "/etc", "/", "", "panel", f"{APPLICATIONS}/linked"])
def test_paths_that_are_not_handed_out(pairing, path):
    (pairing.applications / "linked").symlink_to("/etc")
    before = (pairing.applications / REMOTES).read_bytes()
    tool = pairing.service_tool(timeout=0.2)
    with pytest.raises(NoAnswer):
        tool.ask(path, 1003)
    pairing.server.wait_log(f'pairserver: Refused to send "{path}" - ')
    assert (pairing.applications / REMOTES).read_bytes() == before
    assert archives(pairing) == [] and not pairing.server.logged("Start creating")
    tool.wait_no_longer_than(ANSWER_SECONDS)
    assert tool.list()  # and the conversation goes on


def test_without_tar_nobody_is_paired_until_there_is_one(bench, tmp_path):
    install(bench, "panel", "user")
    install(bench, "display", "system")
    bench.start(env={"PATH": str(tmp_path)})
    bench.server.wait_log(READY)
    before = contents(bench)
    tool = bench.service_tool(timeout=0.3)
    for attempts, path in enumerate((SYSTEM, USER), 1):
        with pytest.raises(NoAnswer):
            tool.ask(path, 1003)
        bench.wait_for(lambda: bench.server.logged("pairarchive: Could not start tar: ") == attempts)
    tool.wait_no_longer_than(ANSWER_SECONDS)
    assert tool.list()
    assert contents(bench) == before
    (tmp_path / "tar").symlink_to("/usr/bin/tar")
    assert tool.get(USER, 1003)[0].name == "panel.tar"


def refused(bench, line, unit=1003):
    """Asks for the application and waits for the line that says why there is none; then for the end of that request."""
    before = contents(bench)
    with bench.service_tool() as tool:
        tool.send(pairwire.get_app(unit, USER))
        bench.server.wait_log(line)
        assert tool.list()
    assert contents(bench) == before, "and nothing has changed"


def test_remotes_that_cannot_be_replaced_leave_the_old_pairing_whole(pairing):
    pairing.tool.get(USER, 1003)
    file = str(APPLICATIONS / REMOTES)
    pairing.on_board(lambda: mount(file, file, None, MS_BIND))  # nothing is ever renamed to where something is mounted
    refused(pairing, f'pairserver: Nothing has changed with "{USER}" - ')
    pairing.on_board(lambda: unmount(file))
    assert words_of_unit(pairing, 1003) == words_of(pairing.table("panel/config/keys.csv"))
    old = words_of_unit(pairing, 1003)
    pairing.tool.get(USER, 1003)
    assert words_of_unit(pairing, 1003) == words_of(pairing.table("panel/config/keys.csv")) != old


def test_a_disk_that_is_nearly_full_leaves_the_old_pairing_whole(bench):
    """Room for some of it, and not for all: the archive would be torn."""
    apart = str(APPLICATIONS / "sites")
    bench.on_board(lambda: os.mkdir(apart))
    bench.on_board(lambda: mount("sites", apart, "tmpfs", options="size=1m,mode=755"))
    install(bench, "sites/panel", "user", content=bytes(600 * 1024))
    bench.start()
    bench.server.wait_log(READY)
    before = contents(bench)
    with bench.service_tool() as tool:
        tool.send(pairwire.get_app(1003, f"{apart}/panel"))
        bench.server.wait_log(f'pairserver: No archive "{apart}/panel.tar" "tar was not content"')
        assert tool.list()
        assert contents(bench) == before
        (bench.applications / "sites" / "panel" / "content").unlink()
        assert tool.get(f"{apart}/panel", 1003)[0].name == "panel.tar"


def test_tar_does_not_outlive_the_server(bench, tmp_path):
    slow = tmp_path / "tar"
    slow.write_text(f"#!/bin/sh\necho $$ >{tmp_path}/pid\nexec sleep 1000\n")
    slow.chmod(0o755)
    install(bench, "panel", "user")
    bench.start(env={"PATH": f"{tmp_path}:/usr/bin:/bin"})
    bench.server.wait_log(READY)
    before = contents(bench)
    bench.tool.send(pairwire.get_app(1003, USER))
    bench.wait_for(lambda: (tmp_path / "pid").exists() and (tmp_path / "pid").read_text(), poll=0.01)
    bench.server.kill()
    bench.wait_for(lambda: not alive(int((tmp_path / "pid").read_text())), what="the end of tar", poll=0.01)
    bench.tool.close()
    slow.unlink()
    bench.server.start()
    bench.server.wait_log(f'pairserver: Undid what had been begun with "{USER}"')
    bench.server.wait_log(READY)
    assert contents(bench) == before
    assert bench.tool.get(USER, 1003)[0].name == "panel.tar"


def alive(pid):
    try:
        os.kill(pid, 0)
        return True
    except ProcessLookupError:
        return False


def test_an_archive_that_nobody_fetched_is_gone_after_the_next_start(pairing):
    pairing.tool.ask(USER, 1003)
    assert archives(pairing) == ["panel.tar"]
    pairing.server.kill()
    pairing.server.start()
    pairing.server.wait_log(f'pairserver: Removed the archive that was left of "{USER}"')
    pairing.server.wait_log(READY)
    assert archives(pairing) == [] and not (pairing.applications / "tessaroserver/config/.pairing").exists()
    assert words_of_unit(pairing, 1003) == words_of(pairing.table("panel/config/keys.csv"))


def test_a_request_while_an_archive_is_made_is_refused_before_keys_are_drawn(bench, tmp_path):
    serve_with_gate(bench, tmp_path)
    first = bench.tool
    first.send(pairwire.get_app(1003, SYSTEM))
    bench.server.wait_log("pairarchive: tarStarted()")
    first.send(pairwire.get_app(1003, USER))
    bench.server.wait_log(BUSY)
    (tmp_path / "go").touch()
    assert first.reply(pairwire.parse_offer).name == "display.tar"
    assert words_of_unit(bench, 1003) is None


def test_an_application_without_its_files_is_not_paired(pairing):
    (pairing.applications / "panel" / "config" / "keys.csv").unlink()
    tool = pairing.service_tool(timeout=0.3)
    with pytest.raises(NoAnswer):
        tool.ask(USER, 1003)
    pairing.server.wait_log(f'pairserver: Could not write the pairing into "{USER}/config/keys.csv"')
    assert words_of_unit(pairing, 1003) is None and archives(pairing) == []


def test_files_are_replaced_in_one_step_and_leave_nothing_behind(pairing):
    watched = {path: path.stat().st_ino for path in (pairing.applications / "panel/config/keys.csv",
                                                     pairing.applications / "panel/config/app.csv",
                                                     pairing.applications / REMOTES)}
    folders = {path.parent: sorted(entry.name for entry in path.parent.iterdir()) for path in watched}
    pairing.tool.get(USER, 1003)
    for path, inode in watched.items():
        assert path.stat().st_ino != inode, f"{path} was written in place"
    assert {folder: sorted(entry.name for entry in folder.iterdir()) for folder in folders} == folders


# --- the program for use by hand ---------------------------------------------------------------------------------------


def by_hand(bench, *arguments):
    """Runs bench/servicetool on the board itself."""
    command = [sys.executable, str(REPOSITORY / "bench" / "servicetool"), *map(str, arguments)]
    return bench.on_board(lambda: subprocess.run(command, capture_output=True, text=True, timeout=30, check=False))


def test_by_hand_list(pairing):
    shown = by_hand(pairing, "list")
    assert shown.returncode == 0 and shown.stderr == ""
    assert f"panel                user     {USER}  (name: Panel)\n" in shown.stdout
    listed = json.loads(by_hand(pairing, "list", "--json").stdout)
    assert {"pairAppPath": SYSTEM, "target": "ru", "type": "system", "name": "Display"} in listed


def test_by_hand_get(pairing, tmp_path):
    got = by_hand(pairing, "get", "panel", "--ru", 1003, "--out", tmp_path / "unit", "--keep-archive")
    assert got.returncode == 0, got.stderr
    assert (tmp_path / "unit" / "panel" / "config" / "keys.csv").read_bytes() == \
        (pairing.applications / "panel" / "config" / "keys.csv").read_bytes()
    assert (tmp_path / "unit" / "panel.tar").exists()
    assert not any(word in got.stdout for word in words_of_unit(pairing, 1003)), "keys belong in files"


@pytest.mark.parametrize("arguments, text", [
    (["get", "nothing", "--ru", 1003], "there is no 'nothing'; the base unit has: "),
    (["--timeout", 0.3, "get", "/etc", "--ru", 1003], "no answer within 0.3 s"),
    (["--host", "127.0.0.1", "get", "panel", "--ru", 1003], "127.0.0.1: ")])
def test_by_hand_failures_say_what_is_wrong(pairing, tmp_path, arguments, text):
    failed = by_hand(pairing, *arguments, "--out", tmp_path)
    assert failed.returncode == 1 and text in failed.stderr and failed.stdout == ""
    assert list(tmp_path.iterdir()) == []
