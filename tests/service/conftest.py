"""Fixtures of the service scenarios: each stops what it started, also when a test fails."""
import pytest

pytest.register_assert_rewrite("harness", "servers")
from harness import Relay  # noqa: E402
from servers import RedisCluster, RedisServer  # noqa: E402


@pytest.fixture
def start_redis(tmp_path):
    """start_redis(*args, unix=False): a redis-server of the test's own, started."""
    servers = []

    def start(*args, unix=False):
        servers.append(RedisServer(tmp_path / f"redis-{len(servers)}", unix, args))
        servers[-1].start()
        return servers[-1]
    yield start
    for server in servers:
        server.kill()


@pytest.fixture
def relay():
    """relay(redis, close, n, ...): a Relay (harness.py) in front of `redis`."""
    relays = []
    yield lambda *args, **options: relays.append(Relay(*args, **options)) or relays[-1]
    for each in relays:
        each.stop()


@pytest.fixture(params=["embedded", "redis"])
def backend(request, start_redis):
    """The service of a test that holds against every backend: None for the embedded one, or a
    redis-server of the test's own on a Unix socket."""
    yield start_redis(unix=True) if request.param == "redis" else None


@pytest.fixture(scope="module")
def cluster(tmp_path_factory):
    cluster = RedisCluster(tmp_path_factory.mktemp("cluster"))
    try:
        cluster.start()
        yield cluster
    finally:
        cluster.stop()
