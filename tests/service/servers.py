"""Redis servers and a Redis Cluster of a test's own, on loopback or Unix sockets in a directory
that the caller gives, and the Redis commands that a test sends them. Free of the ksmem module, so
that C++ suites and benchmarks start their servers through it as well (see main below)."""
import ctypes
import os
import pathlib
import random
import signal
import subprocess
import sys
import tempfile
import time

import redis


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG: nothing outlives a killed run


def wait_for(condition, seconds=10):
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.02)
    return condition()


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
        """Its reply to one command, as redis-py gives it (INFO as a dict); an error reply
        raises redis.ResponseError."""
        with redis.Redis("127.0.0.1", self.port, unix_socket_path=self.socket, socket_timeout=5,
                         password=self.password or None, decode_responses=True) as client:
            return client.execute_command(*parts)

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
                if self.command("INFO", "server")["process_id"] == self.process.pid:
                    return None
            except redis.RedisError:
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

    stop = kill  # as RedisCluster.stop

    def suspend(self, frozen):
        """Freezes it or lets it go on, as a machine that stalls: its connections stay open."""
        os.kill(self.process.pid, signal.SIGSTOP if frozen else signal.SIGCONT)


class RedisCluster:
    """Password-protected nodes on loopback joined into three primaries with `replicas` replicas
    each. Each has the service's own user with the rights that the README gives it, an
    append-only file, and takes a node silent for a second as failing. Nodes are named by their
    port."""

    RIGHTS = ("~{ksmem:* resetchannels -@all +ping +time +role +wait +asking +cluster|slots "
              "+cluster|nodes +script|load +evalsha +eval +exists +del +get +set +hget +hmget "
              "+hset +hdel +hexists +hincrby +hgetall +zadd +zrem +zrange +zrevrange "
              "+zrangebyscore +xadd +xrange +xtrim").split()

    def __init__(self, directory, password="ksmem-cluster-secret", replicas=1):
        args = ["--appendonly", "yes", "--cluster-enabled", "yes", "--cluster-node-timeout", "1000",
                "--masterauth", password, "--repl-diskless-sync-delay", "0"]
        self.nodes = [RedisServer(directory / str(i), False, args, password)
                      for i in range(3 * (1 + replicas))]
        self.password, self.replicas = password, replicas

    def start(self):
        for node in self.nodes:
            node.start()
            node.command("ACL", "SETUSER", "ksmem", "on", f">{self.password}@user", *self.RIGHTS)
        subprocess.run(["redis-cli", "-a", self.password, "--no-auth-warning", "--cluster",
                        "create", *(f"127.0.0.1:{node.port}" for node in self.nodes),
                        "--cluster-replicas", str(self.replicas), "--cluster-yes"],
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
        try:
            node.command("EXISTS", "{ksmem:%s}" % server)
            return node.port
        except redis.ResponseError as moved:  # "MOVED SLOT 127.0.0.1:PORT"
            return int(str(moved).rsplit(":", 1)[1])

    def replica_of(self, port):
        """The replica in sync with the primary at `port`, as that primary sees it now."""
        replica = self.node(port).command("INFO", "replication").get("slave0", {})
        return self.node(replica["port"]) if replica.get("state") == "online" else None

    def settled(self):
        """Every running node sees the cluster ok with every slot served by a running node, and
        every replica has its link to its primary up."""
        for node in filter(lambda n: n.process, self.nodes):
            replication = node.command("INFO", "replication")
            if "cluster_state:ok" not in node.command("CLUSTER", "INFO") or (
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


KINDS = {"redis": RedisServer, "unix": lambda directory: RedisServer(directory, unix=True),
         "cluster": RedisCluster,
         "cluster-without-replicas": lambda directory: RedisCluster(directory, replicas=0)}


def main(arguments):
    """servers.py [--service KIND] KIND... -- COMMAND [ARG...]: starts a server of each KIND
    (redis: loopback, unix: a Unix socket, cluster: 3 primaries with a replica each,
    cluster-without-replicas: 3 primaries) in a temporary directory, runs COMMAND with the URL of
    each in KSMEM_REDIS_<KIND> (upper case, "-" as "_") and, with --service, that of KIND in
    KSMEM_SERVICE too, stops them however it ends and exits with COMMAND's status."""
    split = arguments.index("--") if "--" in arguments else 0
    kinds, command = arguments[:split], arguments[split + 1:]
    service = kinds[1] if kinds[:1] == ["--service"] and len(kinds) > 1 else None
    kinds = kinds[2:] if service else kinds
    if not command or not kinds or not set(kinds) <= KINDS.keys() or service not in kinds + [None]:
        sys.exit(main.__doc__)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    servers, environment = [], dict(os.environ)
    with tempfile.TemporaryDirectory() as directory:
        try:
            for kind in kinds:
                servers.append(KINDS[kind](pathlib.Path(directory, kind)))
                try:
                    servers[-1].start()
                except Exception as why:  # whatever it was, COMMAND cannot run
                    sys.exit(f"servers.py: {kind} did not start: {type(why).__name__}: {why}")
                environment["KSMEM_REDIS_" + kind.upper().replace("-", "_")] = servers[-1].url()
                if kind == service:
                    environment["KSMEM_SERVICE"] = servers[-1].url()
            status = subprocess.run(command, env=environment, preexec_fn=die_with_parent).returncode
            sys.exit(status if status >= 0 else 128 - status)
        finally:
            for server in servers:
                server.stop()


if __name__ == "__main__":
    main(sys.argv[1:])
