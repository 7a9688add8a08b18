"""What the service scenarios start and call: Redis servers and a Redis Cluster of their own, a
relay that loses replies, and children that choose the service anew (the transport reads
KSMEM_SERVICE once per process; a forked child reads it again)."""
import ctypes
import itertools
import math
import multiprocessing
import os
import random
import select
import signal
import socket
import subprocess
import threading
import time
import traceback

import ksmem

FORK = multiprocessing.get_context("fork")
RUN = f"{os.getpid()}-{time.time_ns()}"


def unique(name):
    """A server identifier that no other run uses, so that runs may share a Redis."""
    return f"{name}@{RUN}"


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG: nothing outlives a killed run


def fetch_all(connection):
    """Every event pending for `connection`: it fetches until a fetch brings none."""
    return b"".join(itertools.islice(iter(lambda: connection.get_events()[0], b""), 10000))


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


def wait_for(condition, seconds=10):
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.02)
    return condition()


def command(address, *parts, password=""):
    """The reply of the Redis at `address` (a loopback port or a socket path) to one command:
    text for strings, status and error replies, int, None or a list."""
    unix = isinstance(address, str)
    with socket.socket(socket.AF_UNIX if unix else socket.AF_INET) as connection:
        connection.settimeout(5)
        connection.connect(address if unix else ("127.0.0.1", address))
        stream = connection.makefile("rb")
        for request in ([("AUTH", password)] if password else []) + [parts]:
            data = b"*%d\r\n" % len(request)
            for part in (str(p).encode() for p in request):
                data += b"$%d\r\n%s\r\n" % (len(part), part)
            connection.sendall(data)
            reply = _reply(stream)
        return reply


def _reply(stream):
    line = stream.readline()
    kind, rest = line[:1], line[1:-2].decode()
    if kind in (b"+", b"-"):
        return rest
    if kind == b":":
        return int(rest)
    if kind == b"$":
        return None if rest == "-1" else stream.read(int(rest) + 2)[:-2].decode(errors="replace")
    if kind == b"*":
        return None if rest == "-1" else [_reply(stream) for _ in range(int(rest))]
    raise ConnectionError(f"no readable reply: {line!r}")


def info(node, *command):
    """The reply of `node` to INFO or CLUSTER INFO as a dict."""
    text = node.command(*command)
    return dict(line.split(":", 1) for line in text.splitlines() if ":" in line)


class RedisServer:
    """A redis-server in `directory`, on a Unix socket there or on a loopback port from 20000 to
    30000 (room for the cluster bus at port + 10000), with a password when one is given. It keeps
    its address and directory across kill() and start(), and with "--appendonly yes" what it
    acknowledged."""

    def __init__(self, directory, unix=False, args=(), password=""):
        directory.mkdir(parents=True, exist_ok=True)
        self.directory, self.args, self.password = directory, list(args), password
        self.socket = str(directory / "redis.sock") if unix else None
        self.port, self.process = 0, None

    def url(self):
        credentials = f":{self.password}@" if self.password else ""
        where = f"unix://{credentials}{self.socket}" if self.socket else None
        return where or f"redis://{credentials}127.0.0.1:{self.port}"

    def command(self, *parts):
        return command(self.socket or self.port, *parts, password=self.password)

    def start(self):
        """Starts it and waits until it answers as itself (after loading its append-only file)."""
        for _ in range(10):
            picked = not self.socket and not self.port
            if picked:
                self.port = random.randint(20000, 30000)
            problem = self._launch()
            if not problem:
                return
            if not picked or "Address already in use" not in problem:
                break
            self.port = 0
        raise RuntimeError(problem)

    def _launch(self):
        log = self.directory / "redis.log"
        with open(log, "wb") as output:
            self.process = subprocess.Popen(
                ["redis-server", "--save", "", "--dir", self.directory, "--logfile", log,
                 "--port", str(self.port), "--bind", "127.0.0.1", "--unixsocket",
                 self.socket or "", "--requirepass", self.password, "--appendonly", "no",
                 *self.args],
                stdout=output, stderr=output, start_new_session=True, preexec_fn=die_with_parent)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                self.process = None
                return "redis-server stopped at once: " + log.read_text()
            try:  # another server may hold the port: only ours gives our process id
                if info(self, "INFO", "server").get("process_id") == str(self.process.pid):
                    return None
            except OSError:
                pass
            time.sleep(0.005)
        self.kill()
        return "redis-server did not answer within ten seconds"

    def kill(self):
        """Kills it as a crash would, also a frozen one."""
        if self.process:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
            self.process = None

    def suspend(self, frozen):
        """Freezes it or lets it go on, as a machine that stalls: its connections stay open."""
        os.kill(self.process.pid, signal.SIGSTOP if frozen else signal.SIGCONT)


class RedisCluster:
    """Six password-protected nodes on loopback joined into three primaries with a replica each.
    Each has the service's own user with the rights that the README gives it, an append-only
    file, and takes a node silent for a second as failing. Nodes are named by their port."""

    RIGHTS = ("~{ksmem:* resetchannels -@all +ping +time +role +wait +asking +cluster|slots "
              "+cluster|nodes +script|load +evalsha +eval +exists +del +get +set +hget +hmget "
              "+hset +hdel +hexists +hincrby +hgetall +zadd +zrem +zrange +zrevrange "
              "+zrangebyscore +xadd +xrange +xtrim").split()

    def __init__(self, directory, password="ksmem-cluster-secret"):
        args = ["--appendonly", "yes", "--cluster-enabled", "yes", "--cluster-node-timeout", "1000",
                "--masterauth", password, "--repl-diskless-sync-delay", "0"]
        self.nodes = [RedisServer(directory / str(i), False, args, password) for i in range(6)]
        self.password = password

    def start(self):
        for node in self.nodes:
            node.start()
            assert node.command("ACL", "SETUSER", "ksmem", "on", f">{self.password}@user",
                                *self.RIGHTS) == "OK"
        subprocess.run(["redis-cli", "-a", self.password, "--no-auth-warning", "--cluster",
                        "create", *(f"127.0.0.1:{node.port}" for node in self.nodes),
                        "--cluster-replicas", "1", "--cluster-yes"],
                       check=True, capture_output=True, timeout=60)
        assert self.wait_until_ok(), "the cluster was not ok within 30 seconds"

    def stop(self):
        for node in self.nodes:
            node.kill()

    def url(self):
        """As the service's user, every node a seed."""
        seeds = ",".join(f"127.0.0.1:{node.port}" for node in self.nodes)
        return f"redis-cluster://ksmem:{self.password}%40user@{seeds}"

    def node(self, port=0):
        """The running node at `port`, or any running node."""
        return next((n for n in self.nodes if n.process and port in (0, n.port)), None)

    def owner_of(self, server):
        """The port of the primary that keeps the keys of `server`."""
        node = self.node()
        reply = node.command("EXISTS", "{ksmem:%s}" % server)
        return node.port if isinstance(reply, int) else int(reply.rsplit(":", 1)[1])

    def replica_of(self, port):
        """The replica in sync with the primary at `port`, as that primary sees it now."""
        replica = info(self.node(port), "INFO", "replication").get("slave0", "")
        fields = dict(f.split("=", 1) for f in replica.split(",") if "=" in f)
        return self.node(int(fields["port"])) if fields.get("state") == "online" else None

    def settled(self):
        """Every running node sees the cluster ok with every slot served by a running node, and
        every replica has its link to its primary up."""
        for node in filter(lambda n: n.process, self.nodes):
            replication = info(node, "INFO", "replication")
            if info(node, "CLUSTER", "INFO").get("cluster_state") != "ok" or (
                    replication["role"] == "slave" and replication["master_link_status"] != "up"):
                return False
            for line in node.command("CLUSTER", "NODES").splitlines():
                fields = line.split()  # id ip:port@bus flags primary ping pong epoch link slots
                port = int(fields[1].split("@")[0].rsplit(":", 1)[1])
                if len(fields) > 8 and not self.node(port):
                    return False
        return True

    def wait_until_ok(self):
        return wait_for(self.settled, 30)


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
