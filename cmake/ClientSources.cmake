# The sources of the client library, in the order a request flows through them (README, "How a
# request flows"), then the XML writing side and the conversions. The main build and the fuzz
# build (fuzz/CMakeLists.txt) both compile exactly these.
set(KSMEM_SOURCES
  client/KsMEMConnection.cpp
  client/KsMEMRequest.cpp
  client/TransportFailure.cpp
  client/Exception.cpp
  schemas/_2009_06/base/SharedClientsReply.cpp
  util/SAXToNodeParser.cpp
  util/XMLNode.cpp
  util/DomException.cpp
  schemas/_2009_06/base/SharedClientIDs.cpp
  util/BaseObject.cpp
  util/XmlStream.cpp
  util/XmlEscape.cpp
  util/XmlScan.cpp
  util/Utf8.cpp
  util/StringConversions.cpp)
get_filename_component(KSMEM_ROOT ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
list(TRANSFORM KSMEM_SOURCES PREPEND ${KSMEM_ROOT}/)
