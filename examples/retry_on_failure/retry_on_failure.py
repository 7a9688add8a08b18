#!/usr/bin/python3
"""An application's retry loop, tested against lost replies: the reply to every third post is
lost after the service stored the event, the application posts it again, and the receiver keeps
each event once by the number it carries. Exits 0 when every event arrived."""
import os
import re
import sys

# Before the first operation, which is when the transport reads it; a caller's choice stands.
os.environ.setdefault("KSMEM_SERVICE", "embedded?fault=lost-reply&fault-on=putEvents&fault-every=3")
import ksmem  # noqa: E402


def post_with_retry(connection, event, tries=3):
    for attempt in range(1, tries + 1):
        try:
            return connection.put_events(event, "retry-example")
        except ksmem.KsMEMConnectionException as failure:
            if attempt == tries:
                raise  # the event may be queued all the same: the receiver sees it twice
            print("posting again after:", failure)


def main():
    sender, receiver = ksmem.Connection(), ksmem.Connection()
    receiver.register_client("plant-7", "receiver", "en")
    sender.register_client("plant-7", "sender", "en")
    for n in range(10):
        post_with_retry(sender, f'<reading n="{n}"/>')
    received = b""
    for _ in range(100):
        events, _clients = receiver.get_events("retry-example")
        if not events:
            break
        received += events
    readings = re.findall(rb'<reading n="\d+"/>', received)
    print(f"received {len(readings)} events, {len(set(readings))} distinct")
    return 0 if len(set(readings)) == 10 else 1


if __name__ == "__main__":
    sys.exit(main())
