"""The fatal assertions that can be reached from outside: their text, and that the process ends by an abort."""

import re

import pytest

from tessarobench import internallink as il
from tessarobench.installation import APP, INPUT_TAGS

ABORTED = -6


def assert_fatal(bench, file, line):
    """The assertion's two lines, in this order; what other threads say around them does not matter. `line` may be a
    pattern, for the assertions whose numbers nobody relies on."""
    assert bench.server.wait_exit() == ABORTED
    last = [entry.text for entry in bench.server.log[-8:]]
    said = [index for index, text in enumerate(last) if re.fullmatch(rf'Fatal error in  "{file}" : {line} \.', text)]
    assert said and "Fatal" in last[said[0]:], last


def test_a_packet_of_class_0(running):
    running.bc.send_once(il.Packet(0, 1, 101, b""))
    assert_fatal(running, "src/BI-Link/transport_layer", 183)


def test_a_requested_setting_longer_than_4_bytes(running):
    running.bc.ask("MCIP")
    assert_fatal(running, "src/BI-Link/services/configuration_service", 85)


@pytest.mark.parametrize("answer", [b"\1", b"\1\2\3", b"\1\2\3\4\5"])
def test_an_answer_that_has_not_4_bytes(bench, answer):
    bench.bc.config["BCSR"] = answer
    bench.start()
    assert_fatal(bench, "src/BI-Link/services/configuration_service", 45)


@pytest.mark.parametrize("size", [17, 200])
def test_a_command_longer_than_16_bytes(running, size):
    running.bc.command(bytes(size))
    assert_fatal(running, "src/BI-Link/services/fb_cmd_service", 30)


@pytest.mark.parametrize("size, line", [(205, 27), (0, 28), (4, 28)])
def test_periodic_data_of_a_wrong_size(running, size, line):
    running.bc.periodic(bytes(size))
    assert_fatal(running, "src/BI-Link/services/fb_periodic_service", line)


def test_no_emap_when_the_identity_becomes_known(bench):
    bench.drop(APP, "EMAP")
    bench.start_to_run()
    bench.bc.set(bu_state=1)
    bench.wait_for(lambda: bench.api.tag("BU_STATE") == "1")
    bench.bc.set(bu_identity=400)
    assert_fatal(bench, "src/tessaroserver", 119)


def test_a_second_identity(running):
    running.bc.set(bu_identity=400)
    running.wait_for(lambda: running.api.tag("BU_ID") == "400")
    running.bc.set(bu_identity=401)
    assert_fatal(running, "src/tessaroserver", 168)


def test_identity_zero_is_no_identity(running):
    """0 starts nothing, so the next number is still the first."""
    running.bc.set(bu_identity=400)
    running.wait_for(lambda: running.api.tag("BU_ID") == "400")
    running.bc.set(bu_identity=0)
    running.wait_for(lambda: running.api.tag("BU_ID") == "0")
    assert running.server.running


@pytest.mark.parametrize("kind, size, start_bit, bits, line", [
    ("BOOLEAN", 1, 8, 0, 232), ("BE_BOOLEAN", 2, 16, 0, 232), ("INT", 1, 8, 1, 259), ("INT", 1, 0, 9, 260),
    ("BE_INT", 2, 10, 7, 261), ("INT", 5, 0, 4, 262)])
def test_tags_whose_bits_lie_outside_their_bytes(bench, kind, size, start_bit, bits, line):
    bench.change(INPUT_TAGS, "trim", byteSize=size, startBit=start_bit, bitSize=bits, dataType=kind)
    bench.start_to_run()
    bench.bc.send(il.PROCESS_DATA, b"\x55" * 80)
    assert_fatal(bench, "src/utillityfunctions", line)


def test_a_process_image_that_does_not_fit_the_machine_controllers_packet(running):
    """It travels in one packet of at most 492 bytes."""
    running.bc.set(bu_identity=400)
    running.server.wait_log("EGLink started")
    fits = running.bc.send(il.PROCESS_DATA, bytes(running.bc.image).ljust(492, b"\0"))
    running.wait_for(lambda: fits.acked)
    assert running.api.get()["BU_ID"] == "400"
    running.bc.send(il.PROCESS_DATA, bytes(running.bc.image).ljust(493, b"\0"))
    assert_fatal(running, "submodules/eg-link/src/eglink", r"\d+")
    assert running.server.logged("Packet payload too large.") == 1


@pytest.mark.parametrize("payload", [b"", b"\1"])
def test_a_short_fallback_packet_without_an_id(running, payload):
    running.bc.send(il.SHORT_FALLBACK, payload)
    assert_fatal(running, "src/BI-Link/services/cfallback_service_c", 63)


def test_a_short_fallback_packet_of_another_class(running):
    running.bc.send(il.SHORT_FALLBACK, b"\1\0hello", il.SERVICE_ACK)
    assert_fatal(running, "src/BI-Link/services/cfallback_service_c", 78)
    assert running.server.logged("Unexpected messageClass: not MSG_CLASS_TRANSP_ACK!") == 1


def test_a_fallback_block_of_another_class(running):
    running.bc.send(il.FALLBACK, b"\1\0\0\0", il.SERVICE_ACK)
    assert running.server.wait_exit() == ABORTED
    assert running.server.logged("Unexpected messageClass: not MSG_CLASS_TRANSP_ACK!") == 1


def test_after_a_fatal_assertion_the_next_start_works(running):
    running.bc.send_once(il.Packet(0, 1, 101, b""))
    assert running.server.wait_exit() == ABORTED
    running.bc.forget()
    running.start()
    running.server.wait_log("RUN", whole=True)
    running.show_tsaps(8)
