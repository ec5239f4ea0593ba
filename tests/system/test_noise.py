"""Garbage on the UART: the process survives, and the link works again at once."""

import random

import pytest

from tessarobench import crc, internallink as il


def still_works(bench, value):
    """A process image crosses the line and shows at the API."""
    tool = bench.api  # listening before anything is pushed
    sending = bench.bc.set(tsaps=value)
    bench.wait_for(lambda: sending.done)
    assert sending.acked
    bench.wait_for(lambda: tool.tag("TSAPs") == str(value))


def noise(source):
    """One chunk: raw bytes, a cut or damaged frame, two frames in one, stuffing errors, a good CRC over nonsense."""
    size = source.randrange(0, 90)
    raw = bytes(source.randrange(256) for _ in range(size))
    frame = il.frame(il.Packet(1, source.randrange(64), source.choice([101, 103, 9]), raw))
    kind = source.randrange(7)
    if kind == 0:
        return raw
    if kind == 1:
        return frame[:source.randrange(len(frame))]
    if kind == 2:
        return frame[:-1] + frame
    if kind == 3:
        return bytes([il.START]) + bytes([il.ESCAPE]) * source.randrange(1, 9) + bytes([il.END])
    if kind == 4:
        damaged = bytearray(frame)
        damaged[source.randrange(len(damaged))] ^= 1 << source.randrange(8)
        return bytes(damaged)
    if kind == 5:
        return il.stuff(crc.with_crc(raw[:source.randrange(2)]))
    return bytes([il.END]) * source.randrange(1, 20)


@pytest.mark.parametrize("seed", [1, 2, 3, 4])
def test_thousands_of_chunks(running, seed):
    source = random.Random(seed)
    for _ in range(1500):
        running.bc.send_bytes(noise(source))
    running.wait_for(lambda: running.bc.line.drained, 30)
    running.bc.send_bytes(bytes([il.END]))
    assert running.server.running
    still_works(running, 1 + seed)


@pytest.mark.real_time("the server is busy without a pause, and that takes no virtual time")
def test_a_line_that_does_not_end(running):
    """Far more than the terminal's line buffer holds, without an end; what follows its end is heard."""
    running.bc.send_bytes(b"\x55" * 30000)
    running.bc.send_bytes(bytes([il.END]))
    still_works(running, 77)


def test_noise_glued_to_the_front_of_a_frame_costs_one_repeat(running):
    running.bc.send_bytes(b"\x82garbage")
    sending = running.bc.set(tsaps=78)
    running.wait_for(lambda: sending.acked)
    assert sending.attempts == 2


def test_a_packet_of_one_byte_is_dropped(running):
    """A good CRC over less than a header."""
    for body in (b"", b"\x40"):
        running.bc.send_bytes(il.stuff(crc.with_crc(body)))
    still_works(running, 79)


def test_noise_before_the_link_comes_up(bench):
    source = random.Random(5)
    bench.bc.deaf = True
    bench.start()
    bench.wait_for(lambda: bench.bc.received["event"] >= 1)
    for _ in range(300):
        bench.bc.send_bytes(noise(source))
    bench.wait_for(lambda: bench.bc.line.drained)
    bench.bc.send_bytes(bytes([il.END]))
    bench.bc.deaf = False
    bench.server.wait_log("RUN", whole=True)
    still_works(bench, 80)


@pytest.mark.parametrize("seed", [11, 12])
def test_a_bad_cable_in_both_directions(running, seed):
    """Frames lost, damaged, doubled and late: the link comes and goes, and afterwards everything is as it should be."""
    for number, direction in enumerate((running.bc.to_base_unit, running.bc.from_base_unit)):
        direction.chances(seed + number, loss=0.1, corrupt=0.1, duplicate=0.05, delay=(0, 0.03))
    for value in range(40):
        running.bc.set(trim=value)
        running.api.send(b"DISARM")
    running.wait_for(lambda: running.bc.idle, 15)
    running.bc.to_base_unit.clear()
    running.bc.from_base_unit.clear()
    running.wait_for(lambda: running.relay.closed)
    running.show_tsaps(81)
