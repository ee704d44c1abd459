// Finding an element's text in an XML text by name and occurrence. One direct
// scan, kept behind this function so that an index can replace it without
// touching the library's entry point.
#ifndef KELP_RUNTIME_XMLSUP_XML_SCAN_H
#define KELP_RUNTIME_XMLSUP_XML_SCAN_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelp::rt::xml {

// The raw content of the occurrence-th (0-based, document order, nested ones
// included) element named exactly `tag` in xml: everything between its start
// tag and its matching end tag, or empty for <tag/>. Comments, CDATA
// sections, processing instructions and declarations are skipped while
// searching. nullopt when there is no such occurrence or it is not closed.
// Reads nothing outside xml.
std::optional<std::string_view> findElement(std::string_view xml, std::string_view tag,
                                            uint32_t occurrence);

// Every element named `tag`, as findElement answers them for occurrences 0,
// 1, 2, ... in one pass: entry n is findElement(xml, tag, n).
std::vector<std::optional<std::string_view>> findAllElements(std::string_view xml,
                                                             std::string_view tag);

// raw with &lt; &gt; &amp; &quot; &apos; replaced; any other '&' stays as it is.
std::string decodeEntities(std::string_view raw);

} // namespace kelp::rt::xml

#endif // KELP_RUNTIME_XMLSUP_XML_SCAN_H
