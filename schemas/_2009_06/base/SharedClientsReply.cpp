#include "schemas/_2009_06/base/SharedClientsReply.h"

#include "schemas/_2009_06/base/SharedClientIDs.h"
#include "util/SAXToNodeParser.h"

namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base {

void appendSharedClients(const std::string& reply, std::vector<std::string>& sharedClients) {
  SharedClientIDs clients;
  Net::KsModelEventManager::Util::SAXToNodeParser parser;
  clients.parse(*parser.parseString(reply));
  clients.getSharedClients(sharedClients);
}

}  // namespace Kestrane::Schemas::KsModelEventManager::_2009_06::Base
