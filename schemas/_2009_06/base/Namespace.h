// The XML namespace of the schema types of the 2009-06 base schema. Kept here alone so that the
// schema classes and the stand-in service that writes such documents agree on one text.
#ifndef KSMEM_SCHEMAS_2009_06_BASE_NAMESPACE_H_
#define KSMEM_SCHEMAS_2009_06_BASE_NAMESPACE_H_

namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base {

inline constexpr char kBaseNamespaceURI[] =
    "http://www.kestrane.net/Schemas/KsModelEventManager/_2009_06/base";

}  // namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base

#endif  // KSMEM_SCHEMAS_2009_06_BASE_NAMESPACE_H_
