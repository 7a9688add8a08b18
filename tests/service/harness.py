"""What the service scenarios call beside their servers (servers.py): a relay that loses replies,
and children that choose the service anew (the transport reads KSMEM_SERVICE once per process; a
forked child reads it again)."""
import itertools
import math
import multiprocessing
import os
import pathlib
import random
import select
import socket
import subprocess
import threading
import time
import traceback

import ksmem
from servers import die_with_parent, wait_for

FORK = multiprocessing.get_context("fork")
RUN = f"{os.getpid()}-{time.time_ns()}"
TOOL = os.environ.get("KSMEM_TOOL", pathlib.Path(__file__).parents[2] / "build/tools/ksmem")


def unique(name):
    """A server identifier that no other run uses, so that runs may share a Redis."""
    return f"{name}@{RUN}"


def fetch_all(connection):
    """Every event pending for `connection`: it fetches until a fetch brings none."""
    return b"".join(itertools.islice(iter(lambda: connection.get_events()[0], b""), 10000))


def tool(service, *arguments):
    """Runs ksmem, the command-line client, against `service`: its exit status, standard output
    (bytes) and standard error."""
    done = subprocess.run([TOOL, "--service", service, *arguments], capture_output=True, timeout=30)
    return done.returncode, done.stdout, done.stderr.decode()


def raised(operation):
    """What operation() raised of the library's failures, as (class name, message), or None."""
    try:
        operation()
    except ksmem.Error as e:
        return type(e).__name__, e.message
    return None


def until_done(operation):
    """Calls `operation` again after each failure, as an application would, for at most 30
    seconds; gives its result and how often it failed."""
    deadline = time.monotonic() + 30
    for failures in range(100000):
        try:
            return operation(), failures
        except ksmem.Error:
            if time.monotonic() > deadline:
                raise
            time.sleep(0.02)


class Relay:
    """A TCP relay on loopback in front of a Redis on loopback that loses replies: each piece of
    reply with a chance of 1/n, only while fewer than `most` are lost, and when `only` is given
    only a reply to a request that holds it. After a loss it closes the caller's connection, or
    keeps it open and silent so that the caller's time limit passes. It runs in a process of its
    own, so that the test process forks its children without relay threads."""

    def __init__(self, redis, close, n, seed=0, only=b"", most=math.inf):
        self.lost = FORK.Value("i", 0)
        listener = socket.create_server(("127.0.0.1", 0))
        self.url = redis.url().rsplit(":", 1)[0] + f":{listener.getsockname()[1]}"
        rules = (redis.port, close, n, only, most)
        self.process = FORK.Process(target=self._serve, args=(listener, seed, rules), daemon=True)
        self.process.start()
        listener.close()

    def swallowed(self):
        return self.lost.value

    def stop(self):
        self.process.kill()
        self.process.join()

    def _serve(self, listener, seed, rules):
        die_with_parent()
        for connection in range(seed, seed + 100000):
            caller, _ = listener.accept()
            threading.Thread(target=self._pass, args=(caller, connection, *rules),
                             daemon=True).start()

    def _pass(self, caller, seed, port, close, n, only, most):
        chance, silent, may_lose = random.Random(seed), False, not only
        try:
            redis = socket.create_connection(("127.0.0.1", port))
        except OSError:  # Redis is down: the caller's connection ends at once
            return caller.close()
        with caller, redis:
            while True:
                for end in select.select([caller, redis], [], [])[0]:
                    data = end.recv(65536)
                    if not data:
                        return
                    if end is caller and only:
                        may_lose = only in data
                    lost = (end is redis and not silent and may_lose and self.lost.value < most
                            and chance.randrange(n) == 0)
                    if lost:
                        with self.lost.get_lock():
                            self.lost.value += 1
                        if close:
                            return
                    silent = silent or lost
                    if not silent:
                        (redis if end is caller else caller).sendall(data)


class Child:
    """Runs work(*args) in a forked child of the test process with KSMEM_SERVICE set to
    `service`; result() gives what it returned, or fails with the child's failure."""

    def __init__(self, service, work, *args):
        self._results, sender = FORK.Pipe(duplex=False)
        self._process = FORK.Process(target=self._run, args=(service, work, args, sender),
                                     daemon=True)
        self._process.start()
        sender.close()

    @staticmethod
    def _run(service, work, args, sender):
        die_with_parent()
        os.environ["KSMEM_SERVICE"] = service
        try:
            sender.send((True, work(*args)))
        except BaseException:
            sender.send((False, traceback.format_exc()))

    def result(self, timeout=60):
        try:
            if not self._results.poll(timeout):
                raise AssertionError(f"the child did not finish within {timeout} s")
            done, value = self._results.recv()
        except EOFError:
            self._process.join(5)
            done, value = False, f"it ended with {self._process.exitcode} and said nothing"
        finally:
            self.stop()
        if not done:
            raise AssertionError(f"the child failed: {value}")
        return value

    def stop(self):
        self._process.kill()
        self._process.join()


POSTERS, RECEIVERS, POSTS = 2, 2, 150


def every_event_once_unless_posted_again(server, service_of, meanwhile):
    """POSTERS children post POSTS events each, "POSTER:SEQUENCE;", paced, and post an event
    again when put_events fails; RECEIVERS children fetch, again after a failure, until they hold
    each poster's last event. service_of(index) is each child's KSMEM_SERVICE; the test calls
    meanwhile() once a quarter of the events are posted. Then each receiver must hold every
    event, the first copies in each poster's order, and a second copy only of one posted again.
    Gives how many were."""
    def registered(client, work):
        connection = ksmem.Connection()
        until_done(lambda: connection.register_client(server, client))
        return work(connection)

    def receive(connection):
        received, deadline = b";", time.monotonic() + 30
        while time.monotonic() < deadline and not all(
                b";%d:%d;" % (p, POSTS - 1) in received for p in range(POSTERS)):
            events, _ = until_done(connection.get_events)[0]
            received += events
            time.sleep(0 if events else 0.005)
        return received.decode().split(";")[1:-1]

    def post(p, connection):
        again = set()
        for event in (f"{p}:{i}" for i in range(POSTS)):
            if until_done(lambda: connection.put_events(event + ";"))[1]:
                again.add(event)
            with posted.get_lock():
                posted.value += 1
            time.sleep(0.002)
        return again

    posted = FORK.Value("i", 0)
    for r in range(RECEIVERS):  # first, so that every post is queued for them
        Child(service_of(r), registered, f"receiver-{r}", lambda c: None).result()
    children = [Child(service_of(p), registered, f"poster-{p}", lambda c, p=p: post(p, c))
                for p in range(POSTERS)]
    children += [Child(service_of(r), registered, f"receiver-{r}", receive)
                 for r in range(RECEIVERS)]
    try:
        wait_for(lambda: posted.value >= POSTERS * POSTS // 4, 30)
        meanwhile()
        results = [child.result() for child in children]
    finally:
        for child in children:
            child.stop()
    again = set().union(*results[:POSTERS])
    for events in results[POSTERS:]:
        firsts = list(dict.fromkeys(events))
        for p in range(POSTERS):
            in_order = [f"{p}:{i}" for i in range(POSTS)]
            assert [e for e in firsts if e.startswith(f"{p}:")] == in_order
        assert {e for e in events if events.count(e) > 1} <= again
    return len(again)
