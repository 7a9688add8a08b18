// The XML namespace of the schema types of the 2009-06 base schema. Kept here alone so that the
// schema classes and the stand-in service that writes such documents agree on one text.
#ifndef KSMEM_SCHEMAS_2009_06_BASE_NAMESPACE_H_
#define KSMEM_SCHEMAS_2009_06_BASE_NAMESPACE_H_

namespace Kestrane {
namespace Schemas {
namespace KsModelEventManager {
namespace _2009_06 {
namespace Base {

inline constexpr char kBaseNamespaceURI[] =
    "http://www.kestrane.net/Schemas/KsModelEventManager/_2009_06/base";

}  // namespace Base
}  // namespace _2009_06
}  // namespace KsModelEventManager
}  // namespace Schemas
}  // namespace Kestrane

#endif  // KSMEM_SCHEMAS_2009_06_BASE_NAMESPACE_H_
