"""Faults on demand (KSMEM_SERVICE's fault options): what each kind does against every backend,
and which exchanges the counting and a seeded rate strike."""
import threading
import time

import pytest

import ksmem
from harness import Child, fetch_all, raised, tool, unique


def post_once(server):
    """A receiver registers, a sender posts b"e1" once: what the post raised (class, message),
    how long it took, and what the receiver then fetches."""
    receiver, sender = ksmem.Connection(), ksmem.Connection()
    receiver.register_client(server, "receiver")
    sender.register_client(server, "sender")
    started = time.monotonic()
    failure = raised(lambda: sender.put_events(b"e1"))
    return failure, time.monotonic() - started, fetch_all(receiver)


KINDS = [  # the fault, the class raised, what its message says after the rule, what arrives
    ("unreachable", "KsMEMConnectionException",
     "putEvents (matching exchange 1 of this process) did not reach the service, which is "
     "unchanged.", b""),
    ("lost-reply", "KsMEMConnectionException",
     "the service served putEvents (matching exchange 1 of this process), and its reply was "
     "lost.", b"e1"),
    ("refused", "KsMEMRuntimeException",
     "the service refused putEvents (matching exchange 1 of this process).", b""),
    ("delay:300ms", None, None, b"e1"),
]


@pytest.mark.parametrize("fault, exception, what, arrives", KINDS)
def test_each_kind_fails_the_exchange_as_a_real_fault_does(backend, fault, exception, what,
                                                          arrives):
    # Through the module, then through ksmem, whose processes share no embedded service.
    options = f"fault={fault}&fault-on=putEvents"
    service = (backend.url() + "?" if backend else "embedded?") + options
    server, message = unique("faults"), f"Fault injected by KSMEM_SERVICE ({options}): {what}"

    failure, seconds, events = Child(service, post_once, server).result()
    put = tool(service, "put", "--server", server, "--client", "sender", "e2")
    fetched = tool(service, "get", "--server", server, "--client", "receiver")[1]

    assert failure == (exception and (exception, message))
    assert events == arrives
    assert (seconds >= 0.3) == fault.startswith("delay")
    assert put[::2] == ((1, f"ksmem: {message} (type 0)\n") if exception else (0, ""))
    assert fetched == (arrives.replace(b"e1", b"e2") if backend else b"")


def struck(count, threads=1):
    """The numbers of the getStatus calls, `count` on each of `threads` threads, that failed."""
    failed = []

    def run():
        connection = ksmem.Connection()
        for n in range(1, count + 1):
            try:
                connection.get_status()
            except ksmem.KsMEMConnectionException:
                failed.append(n)
    workers = [threading.Thread(target=run) for _ in range(threads)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    return sorted(failed)


def test_fault_every_and_a_seeded_rate_strike_the_same_exchanges_in_every_run():
    every = Child("embedded?fault=refused&fault-every=3", struck, 10).result()
    on_threads = Child("embedded?fault=refused&fault-every=5", struck, 25, 4).result()
    seeded = [Child("embedded?fault=refused&fault-rate=0.3&fault-seed=7", struck, 200).result()
              for _ in range(2)]
    other_seed = Child("embedded?fault=refused&fault-rate=0.3&fault-seed=8", struck, 200).result()

    assert every == [3, 6, 9]
    assert len(on_threads) == 20  # one count for the process, across its threads
    assert seeded[0] == seeded[1] != other_seed
    assert 40 <= len(seeded[0]) <= 80


def others_run_meanwhile():
    """Whether a getStatus held up by the service still runs after another thread, which waited
    half a second for it to begin, has registered."""
    slow = threading.Thread(target=lambda: ksmem.Connection().get_status())
    slow.start()
    time.sleep(0.5)  # wakes only once the interpreter lock is free
    ksmem.Connection().register_client(unique("meanwhile"), "quick")
    still_running = slow.is_alive()
    slow.join()
    return still_running


def test_an_operation_lets_other_python_threads_run_while_it_waits():
    assert Child("embedded?fault=delay:2s&fault-on=getStatus", others_run_meanwhile).result()
