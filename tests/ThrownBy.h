// What a call throws, as a user would tell it apart, for the unit and the stand-in suites alike.
#ifndef KSMEM_TESTS_THROWNBY_H_
#define KSMEM_TESTS_THROWNBY_H_

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "client/Exception.h"
#include "util/DomException.h"

// "" for nothing, else the class (a pointer marked with "*", which is deleted), the type code
// and the message.
inline std::string thrownBy(const std::function<void()>& action) {
  using namespace Kestrane::Net::KsModelEventManager;
  // The class of the object in flight, without namespaces; typeid of the caught reference would
  // name the base, as the classes have no virtual members.
  const auto describe = [](const auto& e, const std::string& type) {
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(abi::__cxa_current_exception_type()->name(), nullptr, nullptr, nullptr),
        std::free);
    return std::strrchr(name.get(), ':') + 1 + (" " + type) + e.getMessage();
  };
  try {
    action();
  } catch (const Client::Exception& e) {
    return describe(e, std::to_string(e.getType()) + " ");
  } catch (const Client::KsMEMProtocolException* e) {
    const std::unique_ptr<const Client::KsMEMProtocolException> owned(e);
    return describe(*e, std::to_string(e->getType()) + " ");
  } catch (const Util::DomException& e) {
    return describe(e, "");
  }
  return "";
}

#endif  // KSMEM_TESTS_THROWNBY_H_
