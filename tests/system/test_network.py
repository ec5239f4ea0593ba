"""The watch over the address of eth0, and what the base controller is told about it."""


def told(bench, since):
    return [event for event in bench.journal.select("uart", "<", "event", since=since) if event.event == "EGRECONFIG"]


def address(bench):
    asked = bench.bc.ask("EGDH")
    bench.wait_for(lambda: asked.acked)
    return asked.answer


def test_a_new_address_is_noticed_and_told_once(running):
    mark = running.journal.mark()
    assert address(running) == bytes([1, 20, 42, 10])
    running.eth0.change_address("10.42.20.9/24")
    running.wait_for(lambda: told(running, mark))
    assert address(running) == bytes([9, 20, 42, 10])
    assert len(told(running, mark)) == 1


def test_no_address_counts_as_zeros(running):
    mark = running.journal.mark()
    running.eth0.remove_address()
    running.wait_for(lambda: told(running, mark))
    assert address(running) == bytes(4)


def test_without_an_egdh_row_it_is_told_at_every_check(bench):
    bench.drop("tessaroserver/config/app.csv", "EGDH")
    bench.start_to_run()
    mark = bench.journal.mark()
    bench.wait_for(lambda: len(told(bench, mark)) >= 2, 6)
