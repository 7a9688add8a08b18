"""What a fetch hands over and what a silent client keeps, against every backend."""
import time

import ksmem
import pytest
from harness import Child, fetch_all, tool, unique


def backlogs(service, server):
    """The operator's view of `server` that `ksmem clients` prints: CLIENT, PENDING, OLDEST."""
    rows = map(str.split, tool(service, "clients", "--server", server)[1].decode().splitlines()[1:])
    return [(client, int(pending), " ".join(age)) for client, pending, *age in rows]


def test_fetched_batch_comes_again_until_the_client_list_after_it_is_answered(start_redis, relay):
    # get_events asks for the client list after each fetch, whose answer confirms the handover.
    # The relay loses the reply to the first request of a process for the client list (which
    # loads its script, whose text names getSharedClients) and to the transport's repeat of it.
    redis = start_redis()
    losing = relay(redis, close=True, n=1, only=b"getSharedClients", most=2)
    server = unique("handover")

    def fetch_fails_then_comes_again():
        bob, alice = ksmem.Connection(), ksmem.Connection()
        bob.register_client(server, "bob")
        alice.register_client(server, "alice")
        alice.put_events("news")
        with pytest.raises(ksmem.KsMEMConnectionException):
            bob.get_events()
        bob.put_events("reply")
        return bob.get_events()[0]

    def next_process_fetches():  # the last process ended without fetching again
        bob = ksmem.Connection()
        bob.register_client(server, "bob")
        return [bob.get_events()[0] for _ in range(2)]

    assert Child(losing.url, fetch_fails_then_comes_again).result() == b"news"
    assert Child(redis.url(), next_process_fetches).result() == [b"news", b""]
    assert losing.swallowed() == 2


def test_silent_client_keeps_only_the_newest_events_once_the_retention_limit_is_reached(backend):
    service = (backend.url() + "?db=2&" if backend else "embedded?") + "retention=50"
    service += "&retention-age=0"
    server = unique("retention")

    def session():
        silent, active, poster = (ksmem.Connection() for _ in range(3))
        for connection, client in ((silent, "silent one"), (active, "active"), (poster, "poster")):
            connection.register_client(server, client)
        received = b""
        for i in range(400):
            poster.put_events(f"{i};")
            received += active.get_events()[0] if i % 10 == 9 else b""
        table = backlogs(service, server) if backend else None
        return table, fetch_all(silent), received

    table, kept, received = Child(service, session).result()

    # The newest events alone, in order: at least the 50 of the limit, and no more than Redis
    # keeps beyond it as it trims whole blocks of entries. The active client lost none.
    kept = [int(event) for event in kept.split(b";")[:-1]]
    assert 50 <= len(kept) <= 150
    assert kept == list(range(400 - len(kept), 400))
    assert received == "".join(f"{i};" for i in range(400)).encode()
    if backend:  # the operator saw the silent client's backlog before it fetched
        assert [row[0] for row in table] == ["silent%20one", "active", "poster"]
        assert table[0][1] == len(kept) and table[0][2] != "-"
        assert table[1][1] <= 20 and table[2][1:] == (0, "-")
        assert "db2" in backend.command("INFO", "keyspace")  # the database that the URL names


def test_silent_client_loses_events_only_once_they_are_older_than_the_retention_age(backend):
    service = (backend.url() if backend else "embedded") + "?retention-age=1s"
    server = unique("age")

    def session():  # old events "o", posted a second before the new ones, "n"
        silent, poster = ksmem.Connection(), ksmem.Connection()
        silent.register_client(server, "silent")
        poster.register_client(server, "poster")
        for event in ["o"] * 150 + [None] + ["n"] * 150:
            poster.put_events(event) if event else time.sleep(1.1)
        return fetch_all(silent)

    events = Child(service, session).result()

    # Redis drops old entries only in whole blocks of about 100, so up to 100 old ones may stay.
    assert events.count(b"n") == 150
    assert events.count(b"o") <= 100
