"""Settings across the internal link, in both directions."""

import pytest

from tessarobench import internallink as il
from tessarobench.installation import APP, CONFIG_VALUES, KEYS, REMOTES

NOT_FOUND = bytes.fromhex("ffffffff")


def answer(bench, key, unit=None):
    asked = bench.bc.ask(key, unit)
    bench.wait_for(lambda: asked.done)
    assert asked.acked, f"no answer to {key}"
    return asked.answer


# --- the base controller asks ------------------------------------------------------------------------------------------


@pytest.mark.parametrize("key, value", [
    ("CCH1", "0b000000"),  # a number
    ("FMAP", "03000000"),
    ("SID1", "545a3430"),  # a text of four characters
    ("EMAP", "37000000"),  # a text of one
    ("WPA1", "00000000"),  # there, and empty
    ("XXXX", "ffffffff"),  # not there
    ("cch1", "ffffffff"),  # keys are case-sensitive
    ("EGDH", "01142a0a"),  # the address of eth0, 10.42.20.1, last byte first
])
def test_application_settings(running, key, value):
    assert answer(running, key) == bytes.fromhex(value)


@pytest.mark.parametrize("key, row, value", [
    ("RUID", 0, "e9030000"), ("RUID", 1, "ea030000"), ("RUID", 2, "ffffffff"), ("PKY1", 0, "00000000"),
    ("XXXX", 0, "ffffffff"), ("ruindex", 0, "ffffffff")])
def test_settings_of_remote_units(running, key, row, value):
    assert answer(running, key[:4], row) == bytes.fromhex(value)


def test_the_remote_units_number_has_its_low_byte_first(bench):
    rows = bench.table(REMOTES)
    for index in range(2, 259):
        rows.set(str(index), RUID=4402 + index, PKY1=0, PKY2=0, PKY3=0, PKY4=0)
    rows.save(bench.applications / REMOTES)
    bench.start_to_run()
    assert answer(bench, "RUID", 258) == bytes.fromhex("34120000")


def test_a_value_of_another_length_than_six_bytes_names_an_application_setting(running):
    for tail in (b"\0", b"\0\0\0", b"\0" * 40):
        asked = running.bc.send(102, b"CCH1" + tail, 2)
        running.wait_for(lambda: asked.acked)
        assert asked.answer == bytes.fromhex("0b000000")


def test_requests_under_four_bytes_are_not_answered(running):
    for request in (b"", b"C", b"CCH"):
        asked = running.bc.send(102, request, 2)
        running.wait_for(lambda: asked.failed)
    assert answer(running, "CCH1") == bytes.fromhex("0b000000")


def test_the_keys_file_overrides_the_app_file(bench):
    bench.change(KEYS, "CCH1", value=77, from_="RGP")
    bench.start_to_run()
    assert answer(bench, "CCH1") == bytes.fromhex("4d000000")


def test_values_that_are_no_numbers_count_as_zero(bench):
    bench.change(APP, "CCH1", value="eleven")
    bench.change(REMOTES, "0", PKY1="abc")
    bench.start_to_run()
    assert answer(bench, "CCH1") == bytes(4)
    assert answer(bench, "PKY1", 0) == bytes(4)


def test_a_changed_file_is_read_again_on_request(running):
    running.change(APP, "CCH1", value=13)
    assert answer(running, "CCH1") == bytes.fromhex("0b000000")
    mark, log = running.journal.mark(), len(running.server.log)
    running.api.send(b"CCHANGE")
    running.server.wait_log("RECONFIG ----", since=log)
    running.wait_for(lambda: running.journal.last(link="uart", direction="<", event="RECONFIG", since=mark))
    assert answer(running, "CCH1") == bytes.fromhex("0d000000")


def test_a_wrong_row_index_is_put_right_in_the_file(bench):
    rows = bench.table(REMOTES)
    rows.rows[0]["ruindex"], rows.rows[1]["ruindex"] = "4", "9"
    rows.save(bench.applications / REMOTES)
    bench.start_to_run()
    assert bench.server.logged("Invalid ruindex") == 2
    assert [row["ruindex"] for row in bench.table(REMOTES)] == ["0", "1"]
    assert answer(bench, "RUID", 1) == bytes.fromhex("ea030000")


def test_an_invalid_remote_unit_is_reported_and_kept(bench):
    bench.change(REMOTES, "1", RUID=0)
    before = (bench.applications / REMOTES).read_bytes()
    bench.start_to_run()
    assert bench.server.logged("Invalid RUID") == 1
    assert (bench.applications / REMOTES).read_bytes() == before


# --- the base unit asks ------------------------------------------------------------------------------------------------


def asks(bench, since=0):
    return [event for event in bench.journal.select("uart", "<", "ask", since=since) if "again" not in event.detail]


def test_it_fetches_its_keys_in_alphabetical_order_one_at_a_time(running):
    assert [event.key for event in asks(running)] == ["BCSR", "BUID", "IFTY", "IVL1", "IVL2", "IVL3"]
    events = [event for event in running.journal.select("uart")
              if event.kind in ("ask", "answer") and "again" not in event.detail]
    assert [event.kind for event in events] == ["ask", "answer"] * 6


def test_fetched_values_stand_in_the_tags_of_their_names(running):
    running.wait_for(lambda: running.api.tag("IVL3") == str(CONFIG_VALUES["IVL3"]))
    status = running.api.get()
    assert {key: status[key] for key in CONFIG_VALUES} == {key: str(value) for key, value in CONFIG_VALUES.items()}


def test_an_answer_for_a_key_without_a_tag_does_not_stop_the_pass(bench):
    bench.change(APP, "AAAA", value=0, from_="BC")
    bench.start_to_run()
    assert [event.key for event in asks(bench)][0] == "AAAA"
    bench.wait_for(lambda: bench.api.tag("IVL3") == "-5")


def test_a_silent_base_controller_stops_the_pass_and_the_next_start_begins_it_anew(bench):
    bench.bc.answers_config = False
    bench.start()
    bench.server.wait_log("Internal link fail!!!!!!!!")
    assert {event.key for event in asks(bench)} == {"BCSR"}
    bench.bc.answers_config = True
    bench.wait_for(lambda: asks(bench)[-1].key == "IVL3")
    assert [event.key for event in asks(bench)][-6:] == ["BCSR", "BUID", "IFTY", "IVL1", "IVL2", "IVL3"]


def test_a_repeated_answer_after_the_last_key_changes_nothing(running):
    last = running.journal.last(link="uart", kind="answer", direction=">")
    running.bc.send_once(il.Packet(il.ACK, last.number, il.CONFIGURATION, b"\1\2\3\4"))
    assert answer(running, "CCH1") == bytes.fromhex("0b000000")
    assert running.api.get()["IVL3"] == "-5"


def test_no_keys_to_fetch(bench):
    for key in CONFIG_VALUES:
        bench.drop(APP, key)
    bench.start_to_run()
    bench.wait_for(lambda: bench.bc.received["status"] >= 1)
    assert asks(bench) == []
    assert not bench.server.logged("Internal link fail!!!!!!!!")
