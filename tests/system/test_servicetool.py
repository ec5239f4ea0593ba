"""The service tool by itself: its codec against literal bytes, and base units that lie."""

import hashlib
import io
import socket
import tarfile

import pytest

from tessarobench import pairwire
from tessarobench.pairwire import Incomplete, Malformed, Offer
from tessarobench.servicetool import NoAnswer, ServiceTool, ServiceToolError, check, unpack

LIST_REQUEST = bytes.fromhex("00000014 0067 0065 0074 0041 0070 0070 004C 0069 0073 0074")
OFFER = (bytes.fromhex("00000006 0061 0070 0070  0000000A 0061 002E 0074 0061 0072  0000000000000003  00000040")
         + "900150983cd24fb0d6963f7d28e17f72".encode("utf-16-be"))
LIST = bytes.fromhex("0000000E 0061 0070 0070 004C 0069 0073 0074  00000001  00000002"
                     "00000002 006B 00000002 0076  00000002 006C FFFFFFFF")


def test_requests_are_exact():
    assert pairwire.get_app_list() == LIST_REQUEST
    assert pairwire.get_app(0x0102, "/a") == bytes.fromhex(
        "0000000C 0067 0065 0074 0041 0070 0070 0102 00000004 002F 0061")
    assert pairwire.start_transfer() == bytes.fromhex(
        "0000001A 0073 0074 0061 0072 0074 0054 0072 0061 006E 0073 0066 0065 0072")


def test_replies_are_understood_wherever_they_are_cut():
    assert pairwire.parse_offer(OFFER + b"more") == (Offer("a.tar", 3, "900150983cd24fb0d6963f7d28e17f72"), len(OFFER))
    assert pairwire.parse_app_list(LIST) == ([{"k": "v", "l": ""}], len(LIST))
    for whole, parse in ((OFFER, pairwire.parse_offer), (LIST, pairwire.parse_app_list)):
        for size in range(len(whole)):
            with pytest.raises(Incomplete):
                parse(whole[:size])


@pytest.mark.parametrize("reply", [
    LIST, bytes.fromhex("00000003 616263"), bytes.fromhex("7FFFFFFE"), bytes.fromhex("00000002 D800"),
    OFFER.replace(b"a\0.", b"/\0."), OFFER[:-66] + bytes.fromhex("00000002 0061")])
def test_replies_that_are_no_offer(reply):
    with pytest.raises(Malformed):
        pairwire.parse_offer(reply)


def test_what_came_is_compared_with_what_was_promised():
    offer = Offer("a.tar", 3, hashlib.md5(b"abc").hexdigest())
    check(offer, b"abc")
    with pytest.raises(ServiceToolError, match="2 bytes instead of 3"):
        check(offer, b"ab")
    with pytest.raises(ServiceToolError, match="has the MD5"):
        check(offer, b"abd")


@pytest.fixture
def lying():
    """A tool whose base unit has said the given bytes, whatever it is asked, and then (by default) nothing more ever."""
    ends = []

    def answer(reply, close=True):
        near, far = socket.socketpair()
        ends.extend((near, far))
        far.sendall(reply)
        if close:
            far.shutdown(socket.SHUT_WR)
        return ServiceTool(lambda _port: near, timeout=0.2)

    yield answer
    for end in ends:
        end.close()


def test_an_answer_in_two_parts_and_one_kept_for_later(lying):
    tool = lying(LIST + OFFER)
    assert tool.list() == [{"k": "v", "l": ""}]
    assert tool.reply(pairwire.parse_offer).name == "a.tar"


def test_errors_are_told_apart(lying):
    with pytest.raises(ServiceToolError, match="closed the connection"):
        lying(OFFER[:-1]).reply(pairwire.parse_offer)
    with pytest.raises(ServiceToolError, match="no base unit's answer"):
        lying(b"HTTP/1.1 400 Bad Request").list()
    with pytest.raises(NoAnswer, match="within 0.2 s"):
        lying(b"", close=False).list()


def test_names_are_looked_up_in_the_list(lying):
    def listing(*paths):
        reply = pairwire.text("appList") + len(paths).to_bytes(4, "big")
        for path in paths:
            reply += (1).to_bytes(4, "big") + pairwire.text("pairAppPath") + pairwire.text(path)
        return lying(reply)

    assert listing("/apps/a", "/apps/b").find("b") == "/apps/b"
    assert listing().find("/any/path") == "/any/path"
    with pytest.raises(ServiceToolError, match="there is no 'c'; the base unit has: /apps/a"):
        listing("/apps/a").find("c")
    with pytest.raises(ServiceToolError, match="are several 'a'"):
        listing("/apps/a", "/apps/old/a").find("a")


def archive_of(*members):
    """An archive of (name, type, link target) triples."""
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w") as tar:
        for name, kind, target in members:
            info = tarfile.TarInfo(name)
            info.type, info.linkname, info.mode = kind, target, 0o755
            tar.addfile(info)
    return buffer.getvalue()


FILE, FOLDER, LINK, HARD, DEVICE = tarfile.REGTYPE, tarfile.DIRTYPE, tarfile.SYMTYPE, tarfile.LNKTYPE, tarfile.CHRTYPE


def test_a_decent_archive_is_unpacked(tmp_path):
    folder = unpack(archive_of(("app", FOLDER, ""), ("app/file", FILE, ""), ("app/link", LINK, "file")), tmp_path / "out")
    assert folder == tmp_path / "out" / "app"
    assert (folder / "link").resolve() == folder / "file"


@pytest.mark.parametrize("members", [
    [("app/../../escaped", FILE, "")], [("/escaped", FILE, "")], [("app/link", LINK, "/etc")],
    [("app/link", LINK, "../../etc")], [("app/link", HARD, "/etc/passwd")], [("app/device", DEVICE, "")],
    [("one/file", FILE, ""), ("two/file", FILE, "")]], ids=str)
def test_an_archive_that_wants_out_writes_nothing(tmp_path, members):
    with pytest.raises(ServiceToolError):
        unpack(archive_of(("app", FOLDER, ""), *members), tmp_path / "out")
    assert not (tmp_path / "out").exists()


def test_rubbish_is_no_archive(tmp_path):
    with pytest.raises(ServiceToolError, match="cannot be unpacked"):
        unpack(b"rubbish" * 1000, tmp_path)
