// XMLNode: one element of a parsed XML document, as SAXToNodeParser builds it.
//
// A node holds the element's namespace URI (empty when it has none), its local name (never a
// prefix), its own character data joined into one value, its attributes keyed by local name, and
// its child elements in document order. Text and children are kept apart: the value does not
// record where a child stood in it. A tree is its root node; there is no document object.
//
// Ownership: a node owns its children and deletes them with itself; the parent link is a plain
// back pointer. Nodes are not copyable. After the parse a tree is read-only for its consumers and
// belongs to one thread.
//
// Attribute keys compare as unsigned bytes, shorter key first on a common beginning, so walking
// the attributes gives key order, not document order. No operation converts or checks encodings.
#ifndef KSMEM_UTIL_XMLNODE_H_
#define KSMEM_UTIL_XMLNODE_H_

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace Kestrane::Net::KsModelEventManager::Util {

class XMLNode {
 public:
  XMLNode();
  // Deletes every node below this one; pointers kept into the subtree die with it.
  ~XMLNode();

  XMLNode(const XMLNode&) = delete;
  XMLNode& operator=(const XMLNode&) = delete;

  const std::string& getNamespaceURI() const { return namespaceURI; }
  const std::string& getName() const { return name; }
  const std::string& getValue() const { return value; }
  const std::vector<XMLNode*>& getChildren() const { return children; }
  // Null at the root.
  XMLNode* getParent() const { return parent; }

  // Inserts the pair, or replaces the value of a key that is already there.
  void setAttribute(const std::string& key, const std::string& attributeValue);
  // The value, or an empty string for a missing key; hasAttribute tells the two apart.
  // A miss inserts nothing.
  std::string getAttribute(const std::string& key) const;
  bool hasAttribute(const std::string& key) const;
  // In key order.
  const std::map<std::string, std::string>& getAttributes() const { return attributes; }

  // Writes an outline of the element names, one "<name>" and one "</name>" line per element,
  // each behind the indent and flushed; children are indented by two more blanks. Namespaces,
  // attributes and text are not written, and nothing is escaped.
  void print(std::ostream& out, const std::string& indent) const;

 private:
  // The parser fills these in while it builds the tree.
  friend class SAXToNodeParser;

  std::string namespaceURI;
  std::string name;
  std::vector<XMLNode*> children;
  std::string value;
  XMLNode* parent;
  std::map<std::string, std::string> attributes;
};

}  // namespace Kestrane::Net::KsModelEventManager::Util

#endif  // KSMEM_UTIL_XMLNODE_H_
