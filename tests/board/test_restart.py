"""What the memory card keeps: pairing, a restart of the whole board, and the files as another machine reads them."""

from tessarobench import glink
from tessarobench.emulatedboard import EmulatedInstallation
from tessarobench.installation import REMOTES

SECONDS = 120
HANDSET = "/home/root/Applications/handset"
NEW_UNIT = 1003
WORDS = ("PKY1", "PKY2", "PKY3", "PKY4")


def words_of(bench, unit):
    row, = (row for row in bench.table(REMOTES) if row["RUID"] == str(unit))
    return [row[word] for word in WORDS]


def test_a_pairing_survives_a_restart_of_the_board(rack):
    with EmulatedInstallation(rack.emulator) as bench:
        bench.start_to_serve(SECONDS)
        offer, archive = bench.tool.get(HANDSET, NEW_UNIT)
        assert len(archive) == offer.size
        bench.server.kill()  # nothing is written when it ends
        bench.fetch()
        words = words_of(bench, NEW_UNIT)
        assert len(set(words)) == 4 and "0" not in words
    rack.shut_down()

    on_card = rack.image.read_from_card(rack.card, f"Applications/{REMOTES}").decode()
    assert f"{NEW_UNIT};" + ";".join(words) in on_card.replace(" ", "")

    with EmulatedInstallation(rack.emulator, lay_files=False) as bench:
        assert words_of(bench, NEW_UNIT) == words
        bench.start_to_serve(SECONDS)
        unit = bench.unit(NEW_UNIT).join().wait_joined(SECONDS)
        assert unit.verdict == (glink.ACCEPTED, "")
