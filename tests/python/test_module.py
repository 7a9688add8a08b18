"""The ksmem module against the service embedded in this process."""
import os
import threading

import pytest

os.environ["KSMEM_SERVICE"] = "embedded"  # the transport reads it at the first operation
import ksmem  # noqa: E402

NOT_REGISTERED = "Client not Registered with Model Event Manager"


def test_session_returns_what_the_library_fills_in():
    alice, zoe = ksmem.Connection(), ksmem.Connection()
    assert alice.get_status() == 0
    assert alice.register_client("plant-1", "alice", "en") == ["alice"]
    assert zoe.register_client("plant-1", "zoë") == ["alice", "zoë"]
    assert alice.put_events(b"<e>\xff</e>", "job-1") == ["zoë"]
    assert alice.put_events("<e>°C</e>") == ["zoë"]
    # The transport takes zero-terminated chunks: the C++ call drops what follows a zero byte.
    assert alice.put_events(b"x\x00dropped") == ["zoë"]
    assert zoe.get_events("job-2") == (b"<e>\xff</e><e>\xc2\xb0C</e>x", ["alice", "zoë"])
    assert zoe.get_events() == (b"", ["alice", "zoë"])
    assert zoe.get_shared_clients() == ["alice", "zoë"]
    assert alice.unregister_client() == ["zoë"]
    assert zoe.unregister_client() == []


def test_exception_classes_keep_the_library_hierarchy_and_fields():
    bases = {"Error": Exception, "KsMEMException": ksmem.Error}
    for name in ("Connection", "Protocol", "Runtime", "Unrecognised"):
        bases[f"KsMEM{name}Exception"] = ksmem.KsMEMException
    for name, base in bases.items():
        error = getattr(ksmem, name)("what failed", -2)
        assert type(error).__bases__ == (base,)
        assert (error.type, error.message, str(error)) == (-2, "what failed", "what failed")
    dom = ksmem.DomException("unreadable reply")
    assert ksmem.DomException.__bases__ == (Exception,)
    assert (dom.message, str(dom)) == ("unreadable reply", "unreadable reply")


def test_failures_arrive_as_the_class_the_library_throws():
    idle = ksmem.Connection()
    with pytest.raises(ksmem.KsMEMProtocolException) as shared:  # a pointer in C++
        idle.get_shared_clients()
    with pytest.raises(ksmem.KsMEMProtocolException) as fetch:
        idle.get_events()
    with pytest.raises(ksmem.Error) as unregister:
        idle.unregister_client()
    with pytest.raises(ksmem.KsMEMProtocolException) as register:
        idle.register_client("", "nobody")
    assert (shared.value.type, str(shared.value)) == (-2, NOT_REGISTERED)
    assert (fetch.value.type, fetch.value.message) == (-2, NOT_REGISTERED)
    assert type(unregister.value) is ksmem.Error and "not registered" in unregister.value.message
    assert register.value.type == 0 and "without a server identifier" in register.value.message


def test_arguments_of_another_type_raise_type_error():
    connection = ksmem.Connection()
    for call in (lambda: connection.register_client(b"plant", "alice"),
                 lambda: connection.put_events(7), lambda: connection.get_events(None)):
        with pytest.raises(TypeError):
            call()


def test_threads_with_connections_of_their_own_run_sessions_at_once():
    rounds, servers, failures = 50, [f"thread-{i}" for i in range(4)], []
    start = threading.Barrier(len(servers))

    def session(server):
        try:
            sender, receiver = ksmem.Connection(), ksmem.Connection()
            sender.register_client(server, "sender")
            receiver.register_client(server, "receiver")
            start.wait(timeout=60)
            for i in range(rounds):
                event = f"{server}:{i}".encode()
                assert sender.put_events(event) == ["receiver"]
                assert receiver.get_events() == (event, ["sender", "receiver"])
        except BaseException as failure:  # reported by the main thread
            failures.append(failure)

    threads = [threading.Thread(target=session, args=(server,)) for server in servers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(timeout=120)
    assert not any(thread.is_alive() for thread in threads) and failures == []
