"""The far end of the emulated board's UART, with peers that come and go."""

import os
import select
import socket

import pytest
from tessarobench.emulator import Uart
from tessarobench.loop import Loop


@pytest.fixture
def line():
    loop = Loop()
    ours, board = socket.socketpair()
    uart = Uart(loop, ours.detach())
    yield loop, uart, board
    uart.close()
    loop.stop()
    board.close()


def test_a_peer_that_goes_with_bytes_unread_makes_room_for_the_next(line):
    loop, uart, board = line
    first = uart.attach()
    board.send(b"nobody reads this")
    loop.wait_for(lambda: unread(first), poll=0.01)
    os.close(first)

    second = socket.socket(fileno=uart.attach())
    with second:
        second.settimeout(60)
        board.send(b"hello")
        assert second.recv(100) == b"hello"
        second.send(b"board")
        board.settimeout(60)
        assert board.recv(100) == b"board"
    loop.raise_failure()


def unread(descriptor):
    return select.select([descriptor], [], [], 0)[0]
