#!/usr/bin/python3
"""Two clients of one server, through the ksmem module: one posts events, the other fetches
them, both unregister. Runs against the service inside this process unless KSMEM_SERVICE names
another."""
import sys

import ksmem


def main():
    alice, bob = ksmem.Connection(), ksmem.Connection()
    print("status:", alice.get_status())
    print("alice registers, shared clients:", alice.register_client("plant-7", "alice", "en"))
    print("bob registers, shared clients:", bob.register_client("plant-7", "bob", "en"))
    print("alice posts, queued for:", alice.put_events('<reading sensor="t1">21.5</reading>'))
    print("alice posts, queued for:", alice.put_events(b"<raw>\x01\x02</raw>", "job-42"))
    events, clients = bob.get_events("job-42")
    print("bob fetches:", events, "shared clients:", clients)
    print("bob lists the shared clients:", bob.get_shared_clients())
    print("alice unregisters, remaining:", alice.unregister_client())
    print("bob unregisters, remaining:", bob.unregister_client())
    try:
        bob.get_shared_clients()
    except ksmem.KsMEMProtocolException as failure:
        print(f"bob, no longer registered, lists the clients: {type(failure).__name__}"
              f" (type {failure.type}): {failure}")
    return 0 if events.startswith(b'<reading sensor="t1">') else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (ksmem.Error, ksmem.DomException) as failure:
        sys.exit(f"failed: {type(failure).__name__}: {failure}")
