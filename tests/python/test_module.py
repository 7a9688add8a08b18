"""The ksmem module against the service embedded in this process."""
import os

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
