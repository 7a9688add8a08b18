// appendSharedClients is the step from a reply of the service to the caller's list of clients:
// it parses the reply with SAXToNodeParser and reads the root's children as a SharedClientIDs.
// registerClient, unregisterClient, putEvents and getSharedClients get such a document back.
//
// Safe to call from several threads at once.
// REQUIRES: the XML library is started (every live KsMEMConnection holds it).
#ifndef KSMEM_SCHEMAS_2009_06_BASE_SHAREDCLIENTSREPLY_H_
#define KSMEM_SCHEMAS_2009_06_BASE_SHAREDCLIENTSREPLY_H_

#include <string>
#include <vector>

namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base {

// Appends the client identifiers of `reply`, in document order, to `sharedClients`. Throws
// Util::DomException when the reply is no XML document or its root has a child that is not
// "sharedClients"; `sharedClients` is then left as it was.
void appendSharedClients(const std::string& reply, std::vector<std::string>& sharedClients);

}  // namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base

#endif  // KSMEM_SCHEMAS_2009_06_BASE_SHAREDCLIENTSREPLY_H_
