"""Commands of the machine controller, and the ids that keep both sides in step."""

from controllerlink import answered, count, linked, wait_count

__all__ = ["linked"]  # a fixture


def test_commands_are_acknowledged_with_their_ids(linked):
    bench = linked
    for number in (0, 1, 2):
        assert bench.mc.command(b"lift") == number
        wait_count(bench, "VRAI", id=number)
    packets = bench.journal.select(bench.mc.link, "<", "VRAI")
    assert [packet.id for packet in packets] == [0, 1, 2]
    assert len({packet.serial for packet in packets}) == 3


def test_any_id_begins_and_the_ids_wrap(linked):
    bench = linked
    for number in (65534, 65535, 0, 1):
        bench.mc.command(b"on", number)
        wait_count(bench, "VRAI", id=number)
    assert bench.server.logged("Unexpected VRCO") == 0


def test_ids_are_unsigned(linked):
    bench = linked
    bench.mc.command(b"on", 32767)
    bench.mc.command(b"on", 32768)
    wait_count(bench, "VRAI", id=32768)
    bench.mc.command(b"on", 40000)
    bench.server.wait_log("Unexpected VRCO command id 32769 got 40000", whole=True)


def test_an_unexpected_id_is_dropped_and_the_next_command_brings_both_into_step(linked):
    bench = linked
    bench.mc.command(b"first", 5)
    wait_count(bench, "VRAI", id=5)
    bench.mc.command(b"lost in between", 7)
    bench.server.wait_log("Unexpected VRCO command id 6 got 7", whole=True)
    bench.mc.command(b"accepted", 900)
    wait_count(bench, "VRAI", id=900)
    assert count(bench, "VRAI", id=7) == 0


def test_a_repeated_command_is_dropped_twice_over(linked):
    bench = linked
    bench.mc.silence()  # so that no other packet comes between the two copies
    bench.mc.to_base_unit.script("duplicate")
    bench.mc.command(b"twice", 3)
    bench.server.wait_log("Sequence number error.", whole=True)
    bench.server.wait_log("Unexpected VRCO command id 4 got 3", whole=True)
    assert count(bench, "VRAI", id=3) == 1
    answered(bench)


def test_short_commands(linked):
    bench = linked
    for payload in (b"", b"1"):
        bench.mc.send("VRCO", payload)
        bench.server.wait_log(f"VRCO payload too short, ignored. ( {len(payload)} )", whole=True)
    bench.mc.send("VRCO", b"\x07\x00")
    wait_count(bench, "VRAI", id=7)
    bench.mc.send("VRCO", b"\x08\x00abc")
    wait_count(bench, "VRAI", id=8)
