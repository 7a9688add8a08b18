#include "service/ServiceURL.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>

#include "client/KsMemBinding.h"
#include "service/PercentEncoding.h"
#include "service/ServiceFailure.h"

namespace Kestrane::Net::KsModelEventManager::Service {

namespace {

constexpr char kAcceptedForms[] =
    "Accepted forms: unset, empty or \"embedded\" for the service inside this process; "
    "\"redis://[USER:PASSWORD@]HOST[:PORT][/DB]\" (port 6379 unless given) or "
    "\"unix://[USER:PASSWORD@]/PATH/TO/SOCKET\" for a service kept in Redis; "
    "\"redis-cluster://[USER:PASSWORD@]HOST:PORT[,HOST:PORT...]\" for one kept in a Redis "
    "Cluster, the hosts its seeds; each may end in \"?OPTION=VALUE&...\" with the options "
    "retention=EVENTS, retention-age=DURATION, timeout=DURATION, for unix:// db=N, and the "
    "faults on demand fault=unreachable|lost-reply|refused|delay:DURATION, fault-on=OPERATION, "
    "fault-every=N, fault-rate=P and fault-seed=S.";

// The operations that fault-on may name.
constexpr std::string_view kOperations[] = {"getStatus",        "registerClient", "unregisterClient",
                                            "putEvents",        "getEvents",      "getSharedClients",
                                            "getClientBacklogs"};

// A probability: a decimal number from 0 to 1.
std::optional<double> probability(std::string_view text) {
  double value = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value,
                                            std::chars_format::fixed);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || !(value >= 0) ||
      value > 1) {
    return std::nullopt;
  }
  return value;
}

// Decimal digits alone, at most `most`.
std::optional<uint64_t> number(std::string_view text, uint64_t most) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  if (value > most) return std::nullopt;
  return value;
}

// A whole number with the unit ms, s, m, h or d, seconds without one; at most 3650 days, so that
// a time limit or an age added to a clock's time cannot overflow it.
std::optional<std::chrono::milliseconds> duration(std::string_view text) {
  static const struct {
    std::string_view unit;
    uint64_t milliseconds;
  } kUnits[] = {{"ms", 1}, {"s", 1000}, {"m", 60000}, {"h", 3600000}, {"d", 86400000}};
  uint64_t scale = 1000;
  for (const auto& unit : kUnits) {
    if (text.size() > unit.unit.size() &&
        text.substr(text.size() - unit.unit.size()) == unit.unit &&
        (unit.unit != "s" || text[text.size() - 2] != 'm')) {
      text.remove_suffix(unit.unit.size());
      scale = unit.milliseconds;
      break;
    }
  }
  const std::optional<uint64_t> count = number(text, 3650 * uint64_t{86400000} / scale);
  if (!count) return std::nullopt;
  return std::chrono::milliseconds(static_cast<int64_t>(*count * scale));
}

class Parser {
 public:
  explicit Parser(std::string_view text) : text(text) {}

  ServiceURL parse() {
    url.shown = std::string(text);
    std::string_view scheme;
    for (const std::string_view form : {"redis://", "unix://", "redis-cluster://"}) {
      if (text.substr(0, form.size()) == form) scheme = form;
    }
    std::string_view rest = text.substr(scheme.size());
    // The credentials come off first, and the password leaves the shown text before anything
    // can fail and name the text. They end at the last "@" before the hosts, which the hosts
    // and options never hold, or at the last "@/", where the socket path starts; so a raw "/",
    // "?" or "@" in a password stays in it. A form not understood may hold a password too: all
    // of it before its last "@" is hidden.
    const std::size_t lastAt = text.rfind('@'), separator = text.find("://");
    if (scheme.empty() && lastAt != std::string_view::npos) {
      const std::size_t hidden = separator < lastAt ? separator + 3 : 0;
      url.shown = std::string(text.substr(0, hidden)) + "***" + std::string(text.substr(lastAt));
    }
    const bool named = !scheme.empty() && !rest.empty() && rest.front() != '/';
    const std::size_t at = !named                ? std::string_view::npos
                           : scheme == "unix://" ? rest.rfind("@/")
                                                 : rest.rfind('@');
    if (at != std::string_view::npos) {
      const std::size_t colon = rest.substr(0, at).find(':');
      const std::size_t shownUpTo =
          scheme.size() + (colon == std::string_view::npos ? 0 : colon + 1);
      url.shown = std::string(text.substr(0, shownUpTo)) + "***" +
                  std::string(text.substr(scheme.size() + at));
      credentials(rest.substr(0, at));
      rest = rest.substr(at + 1);
    }
    const std::size_t query = rest.find('?');
    const std::string_view options =
        query == std::string_view::npos ? std::string_view() : rest.substr(query + 1);
    rest = rest.substr(0, query);
    if (scheme.empty() && (rest == "embedded" || rest.empty())) {
      if (query != std::string_view::npos && rest.empty()) fail("options follow no service");
    } else if (scheme == "redis://") {
      url.kind = ServiceURL::Kind::kRedis;
      tcp(rest);
    } else if (scheme == "unix://") {
      url.kind = ServiceURL::Kind::kRedis;
      if (rest.substr(0, 1) != "/") fail("the socket path does not start with \"/\"");
      url.socketPath = std::string(rest);
    } else if (scheme == "redis-cluster://") {
      url.kind = ServiceURL::Kind::kRedisCluster;
      cluster(rest);
    } else {
      fail(
          "it starts with none of \"embedded\", \"redis://\", \"unix://\" and "
          "\"redis-cluster://\"");
    }
    if (query != std::string_view::npos) parseOptions(options);
    FaultRule& faults = url.faults;
    if (!faults.options.empty() && faults.kind == FaultRule::Kind::kNone) {
      fail("the options fault-on, fault-every, fault-rate and fault-seed need fault=KIND");
    }
    if (faults.rate && everyGiven) {
      fail("fault-every and fault-rate exclude each other: give one of them");
    }
    return std::move(url);
  }

 private:
  [[noreturn]] void fail(const std::string& reason) {
    throw ServiceFailure(KSMEM_ERR_SERVICE_UNREACHABLE, "KSMEM_SERVICE is \"" + url.shown +
                                                            "\", which names no service: " +
                                                            reason + ". " + kAcceptedForms);
  }

  // USER:PASSWORD or :PASSWORD, percent-encoded.
  void credentials(std::string_view userInfo) {
    const std::size_t colon = userInfo.find(':');
    std::optional<std::string> user, password;
    if (colon != std::string_view::npos) {
      user = percentDecoded(userInfo.substr(0, colon));
      password = percentDecoded(userInfo.substr(colon + 1));
    }
    if (!user || !password || password->empty()) {
      fail("credentials take the form USER:PASSWORD or :PASSWORD, percent-encoded");
    }
    url.user = std::move(*user);
    url.password = std::move(*password);
  }

  // HOST[:PORT] or [IPV6]:PORT.
  void endpoint(std::string_view text) {
    Endpoint node;
    std::size_t colon = text.rfind(':');
    if (!text.empty() && text.front() == '[') {
      const std::size_t close = text.find(']');
      if (close == std::string_view::npos) fail("the host \"[\" is not closed by \"]\"");
      node.host = std::string(text.substr(1, close - 1));
      colon = close + 1 < text.size() ? close + 1 : std::string_view::npos;
      if (colon != std::string_view::npos && text[colon] != ':') {
        fail("text follows the host \"" + std::string(text.substr(0, close + 1)) + "\"");
      }
    } else {
      node.host = std::string(text.substr(0, colon));
      if (node.host.find(':') != std::string::npos) {
        fail("an IPv6 address goes in brackets, as in [::1]:6379");
      }
    }
    if (node.host.empty()) fail("no host is given");
    if (colon != std::string_view::npos) {
      const std::string_view port = text.substr(colon + 1);
      const std::optional<uint64_t> value = number(port, 65535);
      if (!value || *value == 0) {
        fail("the port \"" + std::string(port) + "\" is not a number from 1 to 65535");
      }
      node.port = static_cast<int>(*value);
    }
    url.nodes.push_back(std::move(node));
  }

  // HOST[:PORT][/DB]
  void tcp(std::string_view rest) {
    const std::size_t slash = rest.find('/');
    if (slash != std::string_view::npos) {
      const std::string_view db = rest.substr(slash + 1);
      const std::optional<uint64_t> value = number(db, std::numeric_limits<int>::max());
      if (!value) fail("the database \"" + std::string(db) + "\" is not a whole number");
      url.db = static_cast<int>(*value);
    }
    return endpoint(rest.substr(0, slash));
  }

  // HOST:PORT[,HOST:PORT...]
  void cluster(std::string_view seeds) {
    if (seeds.find('/') != std::string_view::npos) {
      fail("a Redis Cluster has no database but 0, so the form has no \"/DB\"");
    }
    for (;;) {
      const std::size_t comma = seeds.find(',');
      endpoint(seeds.substr(0, comma));
      if (comma == std::string_view::npos) return;
      seeds = seeds.substr(comma + 1);
    }
  }

  void parseOptions(std::string_view options) {
    for (;;) {
      const std::size_t end = options.find('&');
      const std::string_view option = options.substr(0, end);
      const std::size_t equals = option.find('=');
      const std::string_view name = option.substr(0, equals);
      const std::string_view value =
          equals == std::string_view::npos ? std::string_view() : option.substr(equals + 1);
      setOption(name, value);
      if (end == std::string_view::npos) break;
      options = options.substr(end + 1);
    }
  }

  void setOption(std::string_view name, std::string_view value) {
    const auto invalid = [&](const char* what) {
      fail("the option " + std::string(name) + " has the value \"" + std::string(value) +
           "\", which is not " + what);
    };
    if (name == "retention") {
      const std::optional<uint64_t> events = number(value, std::numeric_limits<int64_t>::max());
      if (!events) invalid("a whole number of events");
      url.retention.events = *events;
    } else if (name == "retention-age") {
      const std::optional<std::chrono::milliseconds> age = duration(value);
      if (!age || age->count() % 1000 != 0) {
        invalid("a DURATION of whole seconds up to 3650d, such as 90s, 30m, 12h or 7d");
      }
      url.retention.age = std::chrono::duration_cast<std::chrono::seconds>(*age);
    } else if (name == "timeout" && url.kind != ServiceURL::Kind::kEmbedded) {
      const std::optional<std::chrono::milliseconds> timeout = duration(value);
      if (!timeout || timeout->count() == 0) {
        invalid("a DURATION above 0 and up to 3650d, such as 500ms, 5s or 1m");
      }
      url.timeout = *timeout;
    } else if (name.substr(0, 5) == "fault") {
      setFaultOption(name, value);
    } else if (name == "db" && !url.socketPath.empty()) {
      const std::optional<uint64_t> db = number(value, std::numeric_limits<int>::max());
      if (!db) invalid("a whole number");
      url.db = static_cast<int>(*db);
    } else {
      fail("it has no option \"" + std::string(name) + "\" for this form");
    }
  }

  void setFaultOption(std::string_view name, std::string_view value) {
    const auto invalid = [&](const char* what) {
      fail("the option " + std::string(name) + " has the value \"" + std::string(value) +
           "\", which is not " + what);
    };
    FaultRule& faults = url.faults;
    if (name == "fault") {
      static const struct {
        std::string_view name;
        FaultRule::Kind kind;
      } kKinds[] = {{"unreachable", FaultRule::Kind::kUnreachable},
                    {"lost-reply", FaultRule::Kind::kLostReply},
                    {"refused", FaultRule::Kind::kRefused}};
      for (const auto& kind : kKinds) {
        if (value == kind.name) faults.kind = kind.kind;
      }
      if (value.substr(0, 6) == "delay:") {
        const std::optional<std::chrono::milliseconds> delay = duration(value.substr(6));
        if (!delay) invalid("delay:DURATION with a DURATION up to 3650d, such as delay:250ms");
        faults.kind = FaultRule::Kind::kDelay;
        faults.delay = *delay;
      }
      if (faults.kind == FaultRule::Kind::kNone) {
        invalid("one of unreachable, lost-reply, refused and delay:DURATION");
      }
    } else if (name == "fault-on") {
      if (std::find(std::begin(kOperations), std::end(kOperations), value) ==
          std::end(kOperations)) {
        std::string operations = "an operation: ";
        for (std::size_t i = 0; i < std::size(kOperations); ++i) {
          operations += i == 0 ? "" : i + 1 == std::size(kOperations) ? " or " : ", ";
          operations += kOperations[i];
        }
        invalid(operations.c_str());
      }
      faults.operation = std::string(value);
    } else if (name == "fault-every") {
      const std::optional<uint64_t> every = number(value, std::numeric_limits<int64_t>::max());
      if (!every || *every == 0) invalid("a whole number above 0");
      faults.every = *every;
      everyGiven = true;
    } else if (name == "fault-rate") {
      faults.rate = probability(value);
      if (!faults.rate) invalid("a probability from 0 to 1, such as 0.05");
    } else if (name == "fault-seed") {
      const std::optional<uint64_t> seed = number(value, std::numeric_limits<uint64_t>::max());
      if (!seed) invalid("a whole number");
      faults.seed = *seed;
    } else {
      fail("it has no option \"" + std::string(name) + "\" for this form");
    }
    faults.options += (faults.options.empty() ? "" : "&") + std::string(name) + "=" +
                      std::string(value);
  }

  std::string_view text;
  ServiceURL url;
  bool everyGiven = false;
};

}  // namespace

ServiceURL parseServiceURL(std::string_view text) { return Parser(text).parse(); }

}  // namespace Kestrane::Net::KsModelEventManager::Service
