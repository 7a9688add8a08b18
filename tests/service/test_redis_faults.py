"""The service kept in Redis under faults: replies lost on the way, a Redis killed under load."""
import time

import ksmem
from harness import POSTERS, POSTS, Child, every_event_once_unless_posted_again, unique


def test_replies_lost_on_the_way_neither_lose_nor_repeat_an_event(start_redis, relay):
    # About one reply in ten is lost: through one relay the connection breaks there, through the
    # other nothing more comes and the caller's time limit passes. A poster and a receiver use each.
    redis = start_redis()
    breaking = relay(redis, close=True, n=10, seed=7)
    silent = relay(redis, close=False, n=10, seed=11)

    posted_again = every_event_once_unless_posted_again(
        unique("lost-replies"),
        lambda index: breaking.url if index == 0 else silent.url + "?timeout=200ms", lambda: None)

    # The transport sent each request once more after a lost reply, so the application had to
    # post again only where two replies in a row were lost.
    assert posted_again < POSTERS * POSTS / 20
    assert breaking.swallowed() > 10 and silent.swallowed() > 10


def test_unregister_sent_again_after_its_reply_was_lost_still_succeeds(start_redis, relay):
    # Loses the reply to the first request with an op key (":op:"), here the unregister.
    losing = relay(start_redis(), close=True, n=1, only=b":op:", most=1)
    server = unique("leaving")

    def leave():
        stays, leaves = ksmem.Connection(), ksmem.Connection()
        stays.register_client(server, "stays")
        leaves.register_client(server, "leaves")
        return leaves.unregister_client()

    assert Child(losing.url, leave).result() == ["stays"]
    assert losing.swallowed() == 1


def test_killed_redis_with_an_append_only_file_loses_no_acknowledged_event(start_redis):
    # Redis writes the append-only file before it replies, so a killed process loses nothing
    # acknowledged (unless an fsync had stalled the disk for seconds).
    redis = start_redis("--appendonly", "yes")

    def kill_and_restart():
        redis.kill()
        time.sleep(0.3)
        redis.start()

    posted_again = every_event_once_unless_posted_again(
        unique("killed-redis"), lambda index: redis.url(), kill_and_restart)

    assert posted_again > 0, "Redis was killed when no post was under way"
