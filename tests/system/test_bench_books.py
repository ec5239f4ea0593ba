"""The books of the bench must notice what they are kept for."""

from tessarobench.account import Account, slope


def account(entered, left, **options):
    books = Account("books", **options)
    for when, payload in entered:
        books.enter(when, payload)
    for payload in left:
        books.leave(payload)
    return books


def test_what_balances():
    books = account([(1, b"a"), (2, b"b"), (3, b"b")], [b"a", b"b", b"b"]).close()
    assert (books.entered, books.delivered, books.violations, sum(books.dropped.values())) == (3, 3, [], 0)


def test_a_loss_needs_a_window():
    books = account([(1, b"a"), (2, b"b"), (5, b"c")], [b"a"])
    books.may_drop(1.5, 2.5, "unit without a link")
    assert books.close().dropped == {"unit without a link": 1}
    assert books.violations == ["books: 63 entered at 5.000 s and never left"]


def test_a_double_and_a_stranger_are_violations_even_in_a_window():
    books = account([(1, b"a")], [b"a", b"a", b"z"])
    books.may_drop(0, 9, "unit without a link")
    assert [line.split()[1] for line in books.close().violations] == ["61", "7a"]


def test_one_that_overtakes():
    assert account([(1, b"a"), (2, b"b")], [b"b", b"a"]).close().violations == ["books: 1 times a later one came first"]
    assert account([(1, b"a"), (2, b"b")], [b"b", b"a"], ordered=False).close().violations == []


def test_one_that_overtakes_while_the_path_changes():
    """The overtaken one has to lie in the window; its place is told."""
    books = account([(1, b"a"), (2, b"b")], [b"b", b"a"])
    books.may_drop(0.5, 1.5, "unit without a link")
    books.close()
    assert books.violations == [] and "1 overtaken on a change of path" in str(books)
    late = account([(1, b"a"), (2, b"b")], [b"b", b"a"])
    late.may_drop(1.5, 2.5, "unit without a link")
    assert late.close().violations == ["books: 1 times a later one came first"]


def test_numbers_alone():
    assert account([(1, b"x")] * 3, [b"y"] * 3, exact=False).close().violations == []
    assert account([(1, b"x")] * 3, [b"y"] * 2, exact=False).close().violations == ["books: 1 never left"]
    assert account([(1, b"x")], [b"y"] * 2, exact=False).close().violations == ["books: 1 more left than entered"]


def test_ruled_out_payloads_count_as_entered_and_dropped():
    books = account([(1, b"a")], [b"a"])
    books.rule("damaged")
    assert (books.close().entered, books.dropped, books.violations) == (2, {"damaged": 1}, [])


def test_the_slope_of_a_line():
    assert slope([(0, 5), (1, 7), (2, 9)]) == 2
    assert slope([(0, 5)]) == 0
