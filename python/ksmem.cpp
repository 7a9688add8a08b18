// The Python module ksmem: KsMEMConnection as ksmem.Connection, whose operations return what the
// C++ operations fill in, and the exception family as Python exception classes of the same
// names. Built over the shared library exactly as an application links it.
//
// Every operation converts its arguments while it holds the interpreter lock, releases the lock
// for the C++ call, and converts the results once it holds the lock again, so that Python
// threads run operations at once. Failures become Python exceptions in translateFailure alone.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

#include "client/Exception.h"
#include "client/KsMEMConnection.h"
#include "util/DomException.h"

namespace py = pybind11;
namespace client = Kestrane::Net::KsModelEventManager::Client;
using Kestrane::Net::KsModelEventManager::Util::DomException;

namespace {

// Text between Python and the library is UTF-8. In str arguments and in the client ids
// returned, bytes that are not valid UTF-8 map to lone surrogates and back
// (errors="surrogateescape"), so that a client id the library returned goes back to it byte
// for byte; messages, which are for people, get U+FFFD instead.
const char kTextErrors[] = "surrogateescape";
const char kMessageErrors[] = "replace";

std::string encodeText(const py::str& text) {
  py::object utf8 = py::reinterpret_steal<py::object>(
      PyUnicode_AsEncodedString(text.ptr(), "utf-8", kTextErrors));
  if (!utf8) throw py::error_already_set();
  return std::string(py::reinterpret_borrow<py::bytes>(utf8));
}

py::str decodeText(const std::string& text, const char* errors) {
  py::object decoded = py::reinterpret_steal<py::object>(
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), errors));
  if (!decoded) throw py::error_already_set();
  return py::reinterpret_borrow<py::str>(decoded);
}

std::vector<py::str> decodeClients(const std::vector<std::string>& clients) {
  std::vector<py::str> decoded;
  decoded.reserve(clients.size());
  for (const std::string& client : clients) decoded.push_back(decodeText(client, kTextErrors));
  return decoded;
}

// The module's exception classes, created once at import and kept for the life of the
// process (a module that has been imported is never unloaded).
struct ExceptionClasses {
  py::handle error, ksmem, connection, protocol, runtime, unrecognised, dom;
};
ExceptionClasses classes;

// Raises `cls` with `message` and the other `fields` of its constructor (the type code).
template <typename... Fields>
void raiseAs(py::handle cls, const std::string& message, Fields... fields) {
  py::object instance = cls(decodeText(message, kMessageErrors), fields...);
  PyErr_SetObject(cls.ptr(), instance.ptr());
}

// The one place where a failure of the library becomes a Python exception: each class as the
// module class of its name, most derived first. Anything else passes on to pybind11.
void translateFailure(std::exception_ptr failure) {
  try {
    if (failure) std::rethrow_exception(failure);
  } catch (client::KsMEMProtocolException* thrown) {  // getSharedClients: the catcher owns it
    std::unique_ptr<client::KsMEMProtocolException> owned(thrown);
    raiseAs(classes.protocol, owned->getMessage(), owned->getType());
  } catch (const client::KsMEMConnectionException& e) {
    raiseAs(classes.connection, e.getMessage(), e.getType());
  } catch (const client::KsMEMProtocolException& e) {
    raiseAs(classes.protocol, e.getMessage(), e.getType());
  } catch (const client::KsMEMRuntimeException& e) {
    raiseAs(classes.runtime, e.getMessage(), e.getType());
  } catch (const client::KsMEMUnrecognisedException& e) {
    raiseAs(classes.unrecognised, e.getMessage(), e.getType());
  } catch (const client::KsMEMException& e) {  // Utf8ConversionException, were one to escape
    raiseAs(classes.ksmem, e.getMessage(), e.getType());
  } catch (const client::Exception& e) {
    raiseAs(classes.error, e.getMessage(), e.getType());
  } catch (const DomException& e) {
    raiseAs(classes.dom, e.getMessage());
  }
}

// Adds the exception class ksmem.`name`, derived from `base`; the instance stays owned by the
// module and by `classes`.
py::handle addExceptionClass(py::module_& m, const char* name, py::handle base, const char* doc) {
  std::string qualified = std::string("ksmem.") + name;
  py::object cls = py::reinterpret_steal<py::object>(
      PyErr_NewExceptionWithDoc(qualified.c_str(), doc, base.ptr(), nullptr));
  if (!cls) throw py::error_already_set();
  m.add_object(name, cls);
  return cls.release();
}

// A KsMEMConnection that Python threads may share: its operations take turns. `run` calls
// `operation` on the connection without the interpreter lock.
class Connection {
 public:
  template <typename Operation>
  auto run(Operation operation) {
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex);
    return operation(connection);
  }

 private:
  std::mutex mutex;  // held while an operation runs
  client::KsMEMConnection connection;
};

using EventText = std::variant<py::bytes, py::str>;

std::string eventBytes(const EventText& events) {
  if (const py::bytes* raw = std::get_if<py::bytes>(&events)) return std::string(*raw);
  return encodeText(std::get<py::str>(events));
}

const char kModuleDoc[] = R"doc(Client of the Model Event Manager service, over the C++ library libKsMemCppBinding.

A Connection checks that the service answers, registers under a server and client
identity, posts and fetches events, lists the clients that share its server, and
unregisters. Each operation runs one exchange (get_events two) on the calling thread and
blocks until it has ended; nothing is retried. The interpreter lock is released while an
operation runs, so threads, each with its own Connection, run operations at once; a
Connection shared by threads runs their operations one after another.

Which service: the environment variable KSMEM_SERVICE (unset, empty or "embedded": a
service inside this process; "redis://HOST[:PORT]", "unix:///PATH", "redis-cluster://..."
for a service kept in Redis) is read once per process by the transport, at the first
operation of the first Connection. Set it (os.environ["KSMEM_SERVICE"] = ...) before that;
later changes have no effect, except in a forked child, which reads it again.

Text: identities, the locale and the correlation id are str, sent as UTF-8; client ids come
back as str decoded from UTF-8, bytes that are not UTF-8 as lone surrogates
(errors="surrogateescape"), so that an id passed back is the same bytes. Messages of
exceptions are decoded with errors="replace". Fetched events are bytes, byte for byte; a
posted event is bytes or a str sent as its UTF-8 encoding (put_events says what becomes of a
zero byte). The library converts identities between the process's code page and UTF-8, so
it expects a UTF-8 locale, which Python sets up by default.

Failures raise Error or one of its subclasses (KsMEMException, KsMEMConnectionException,
KsMEMProtocolException, KsMEMRuntimeException, KsMEMUnrecognisedException), each with the
library's .type code and .message; a reply that is not the expected XML document raises
DomException, which is no Error.)doc";

const char kErrorDoc[] =
    "Base of the library's failures (the C++ class Exception). unregister_client raises it as\n"
    "such, whatever failed below.\n\n"
    "Attributes: type (int), the library's type code: 0 unless the operation documents\n"
    "another (-1: the service could not be reached, -2: not registered); message (str);\n"
    "str(error) is the message.";

void initErrorClass() {
  classes.error.attr("__init__") = py::cpp_function(
      [](const py::object& self, const py::str& message, int type) {
        py::handle(PyExc_Exception).attr("__init__")(self, message);
        self.attr("message") = message;
        self.attr("type") = type;
      },
      py::is_method(classes.error), py::arg("message") = "", py::arg("type") = 0,
      "Sets .message, .type and the exception's args (message,).");
  classes.dom.attr("__init__") = py::cpp_function(
      [](const py::object& self, const py::str& message) {
        py::handle(PyExc_Exception).attr("__init__")(self, message);
        self.attr("message") = message;
      },
      py::is_method(classes.dom), py::arg("message") = "",
      "Sets .message and the exception's args (message,).");
}

}  // namespace

PYBIND11_MODULE(ksmem, m) {
  m.doc() = kModuleDoc;

  classes.error = addExceptionClass(m, "Error", PyExc_Exception, kErrorDoc);
  classes.ksmem = addExceptionClass(m, "KsMEMException", classes.error,
                                    "Common base of the classes below; never raised as such.");
  classes.connection = addExceptionClass(
      m, "KsMEMConnectionException", classes.ksmem,
      "The service could not be reached. get_status raises it for every failure, type -1.");
  classes.protocol = addExceptionClass(
      m, "KsMEMProtocolException", classes.ksmem,
      "The request was refused: the client is not registered (type -2, raised before any\n"
      "exchange), or the transport refused it or broke its contract.");
  classes.runtime = addExceptionClass(
      m, "KsMEMRuntimeException", classes.ksmem,
      "The request could not be formed or processed, or a reply exceeded 1 GiB.");
  classes.unrecognised = addExceptionClass(
      m, "KsMEMUnrecognisedException", classes.ksmem,
      "The transport failed with a result code that has no class of its own.");
  classes.dom = addExceptionClass(
      m, "DomException", PyExc_Exception,
      "A reply that is not the expected XML document (the C++ Util::DomException). No\n"
      "subclass of Error and without a type code. Attribute: message (str).");
  initErrorClass();
  py::register_local_exception_translator(translateFailure);

  py::class_<Connection>(m, "Connection", R"doc(A client of the Model Event Manager service (the C++ KsMEMConnection).

Holds no open resource between operations, only its identity (server, client, locale) and
whether it has started the transport, which it does at its first operation. Registered
means a non-empty server id: register_client sets it, unregister_client clears it.)doc")
      .def(py::init<>(), "A connection that is not registered; touches no service yet.")
      .def(
          "get_status",
          [](Connection& c) { return c.run([](client::KsMEMConnection& k) { return k.getStatus(); }); },
          R"doc(Sends "KsMEM Status check" and compares the reply with it.

Returns 0 when the service echoed it, -2 when it answered something else. Needs no
registration and sends no identity. Raises KsMEMConnectionException (type -1, message
"KsMEM Connection failed") for every failure.)doc")
      .def(
          "register_client",
          [](Connection& c, const py::str& server, const py::str& client, const py::str& locale) {
            std::string serverID = encodeText(server), clientID = encodeText(client),
                        localeName = encodeText(locale);
            std::vector<std::string> clients;
            c.run([&](client::KsMEMConnection& k) {
              k.registerClient(serverID, clientID, localeName, clients);
            });
            return decodeClients(clients);
          },
          py::arg("server"), py::arg("client"), py::arg("locale") = "",
          R"doc(Registers as `client` under `server`; returns the clients registered under that server.

The identity and locale are stored first, whatever happens next: the connection counts as
registered whenever `server` is not empty, even when this call raised. A client already
registered keeps its place and its pending events. A non-empty locale goes with every
later request. Raises a KsMEMException subclass (an empty server: KsMEMProtocolException)
or DomException.)doc")
      .def(
          "unregister_client",
          [](Connection& c) {
            std::vector<std::string> clients;
            c.run([&](client::KsMEMConnection& k) { k.unregisterClient(clients); });
            return decodeClients(clients);
          },
          R"doc(Unregisters; returns the clients that remain under the server.

Clears server and client id when it returns or raises Error (not on DomException); the
locale stays. Every failure of the exchange raises plain Error (not a subclass) with the
type code and message of the failure, e.g. when the connection was not registered.)doc")
      .def(
          "put_events",
          [](Connection& c, const EventText& events, const py::str& correlation) {
            std::string body = eventBytes(events), correlationID = encodeText(correlation);
            std::vector<std::string> clients;
            c.run([&](client::KsMEMConnection& k) { k.putEvents(body, clients, correlationID); });
            return decodeClients(clients);
          },
          py::arg("events"), py::arg("correlation") = "",
          R"doc(Posts `events` as one event to the other clients of the server; returns the clients it was queued for.

`events` is sent unchanged, bytes as they are and a str as its UTF-8 encoding, except
that the transport takes the body in chunks of 4098 bytes as zero-terminated text: a zero
byte drops the rest of its chunk, as with the C++ putEvents. `correlation` is sent as the
request's Log-Correlation-ID. Raises KsMEMProtocolException (type -2) before any exchange
when not registered, and when the service refuses an event over 1 MiB (nothing of it is
stored); another KsMEMException subclass or DomException otherwise. A post that raised may
have been stored; posting it again may deliver it twice.)doc")
      .def(
          "get_events",
          [](Connection& c, const py::str& correlation) {
            std::string events, correlationID = encodeText(correlation);
            std::vector<std::string> clients;
            c.run([&](client::KsMEMConnection& k) { k.getEvents(events, clients, correlationID); });
            return std::make_tuple(py::bytes(events), decodeClients(clients));
          },
          py::arg("correlation") = "",
          R"doc(Fetches the pending events; returns (events, clients).

Two exchanges: the first brings the next batch of events after the last one acknowledged
(b"" when none is pending), exactly as posted and one after another without separator, and
acknowledges the batch before it; `correlation` is its Log-Correlation-ID. The second asks
for the clients of the server, as get_shared_clients does. Raises KsMEMProtocolException
(type -2) before any exchange when not registered. If the second step fails, this raises
and its events are not returned, but nothing is lost: the service hands the same batch
over again until the client list after it was answered, so the next get_events brings
them again.)doc")
      .def(
          "get_shared_clients",
          [](Connection& c) {
            std::vector<std::string> clients;
            c.run([&](client::KsMEMConnection& k) { k.getSharedClients(clients); });
            return decodeClients(clients);
          },
          R"doc(Returns the clients registered under this connection's server.

Raises KsMEMProtocolException (type -2, message "Client not Registered with Model Event
Manager") before any exchange when not registered; another KsMEMException subclass or
DomException when the exchange fails.)doc");
}
