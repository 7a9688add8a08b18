// SharedClientIDs is the schema object for a list of client identifiers, the content of the
// service's replies to registerClient, unregisterClient, putEvents and getSharedClients.
//
// The list keeps order of arrival, duplicates and empty entries. Every operation that takes
// entries in appends them: nothing empties the list but assignment, a move from the object, or
// its end. Entries are plain text; outputXML escapes them on the way out.
//
// Reference counting and cloning are those of BaseObject. An object belongs to one thread at a
// time.
#ifndef KSMEM_SCHEMAS_2009_06_BASE_SHAREDCLIENTIDS_H_
#define KSMEM_SCHEMAS_2009_06_BASE_SHAREDCLIENTIDS_H_

#include <set>
#include <string>
#include <vector>

#include "util/BaseObject.h"
#include "util/Export.h"

namespace Kestrane::Net::KsModelEventManager::Util {
class XMLNode;
class XmlStream;
}  // namespace Kestrane::Net::KsModelEventManager::Util

namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base {

class KSMEM_EXPORT SharedClientIDs : public Net::KsModelEventManager::Util::BaseObject {
 public:
  // An empty list in the base schema's namespace (kBaseNamespaceURI).
  SharedClientIDs();
  // Copies and moves carry the reference count along. A moved-from object keeps its count and
  // is left with an empty list.
  SharedClientIDs(const SharedClientIDs& other);
  SharedClientIDs(SharedClientIDs&& other);
  SharedClientIDs& operator=(const SharedClientIDs& other);
  SharedClientIDs& operator=(SharedClientIDs&& other);
  ~SharedClientIDs() override;

  // Appends a copy of every entry, in order, to `clients`.
  void getSharedClients(std::vector<std::string>& clients) const;
  // Appends every entry of `clients`, in order; does not replace the list.
  void setSharedClients(const std::vector<std::string>& clients);
  void addSharedClientID(const std::string& client);

  // Appends the text of every child of `node`, in document order. Only the children's local
  // names are looked at: each must be "sharedClients", in whatever namespace. Throws
  // DomException "Unexpected node name: NAME" at the first child named otherwise; the entries
  // read before it stay.
  void parse(const Net::KsModelEventManager::Util::XMLNode& node);

  void getNamespaces(std::set<std::string>& namespaces) const override;
  SharedClientIDs* reallyClone() override;

  // Writes the whole element: `tag` as its name (qualified by the namespace's prefix unless it
  // holds a colon), then one "sharedClients" child per entry with the entry escaped, then the
  // end tag. On a stream's first element the start tag also declares the namespace. Never
  // written in the empty-element form.
  void outputXML(Net::KsModelEventManager::Util::XmlStream& xml, const std::string& tag) const;

 private:
  std::vector<std::string> sharedClients;
};

}  // namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base

#endif  // KSMEM_SCHEMAS_2009_06_BASE_SHAREDCLIENTIDS_H_
