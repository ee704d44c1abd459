// A strict reader of the small XML dialect of storage models: it checks that
// a text is well-formed and turns it into a tree of elements that remember
// their line. No DTDs, no namespaces, no external anything; what it cannot
// read is an error naming the line, never a guess.
#ifndef KELP_RUNTIME_DATASTORE_XML_READER_H
#define KELP_RUNTIME_DATASTORE_XML_READER_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelp::ds::xml {

struct Attribute {
    std::string name;
    // Entities decoded; a tab, line feed or carriage return written as such
    // reads as a blank, one written as a character reference (&#10;) as itself.
    std::string value;
};

struct Element {
    std::string name;
    uint32_t line = 0; // of the '<' that opens it
    std::vector<Attribute> attributes;
    std::string text;      // the character data directly inside, decoded and joined
    uint32_t textLine = 0; // line of the first non-blank character of text; 0: none
    std::vector<Element> children;

    // The value of attribute `name`, or null.
    const std::string *attribute(std::string_view attributeName) const;
};

struct Error {
    uint32_t line = 0;
    std::string message;
};

// Nesting allowed when the caller names no limit; model files pass their own.
constexpr uint32_t kDefaultMaxDepth = 8;

// Parses a whole document: an optional UTF-8 byte order mark as its first
// bytes, an optional declaration, comments and processing instructions, and
// exactly one root element. False with *error set on the
// first problem: bytes that are not UTF-8, control characters, a DOCTYPE,
// mismatched or unclosed tags, bad names, unquoted or repeated attributes,
// unknown or invalid entities, text outside the root, nesting deeper than
// maxDepth.
bool parseDocument(std::string_view text, Element *root, Error *error,
                   uint32_t maxDepth = kDefaultMaxDepth);

// Takes each child of the root element as soon as it is closed, with the
// root as read so far (its name, line and attributes, no children); the
// child may be moved from.
using ChildSink = std::function<void(const Element &root, Element &child)>;

// As parseDocument, but the children of the root element go to `sink` one
// by one instead of root->children, which stays empty: a long document is
// never held whole as a tree. The sink is called for children before a
// later problem of the text is found.
bool parseDocument(std::string_view text, Element *root, Error *error, uint32_t maxDepth,
                   const ChildSink &sink);

// Parses a run of content without a root: elements, comments and blank text
// (other text, a byte order mark included, is an error). An empty text gives
// no elements.
bool parseFragment(std::string_view text, std::vector<Element> *elements, Error *error,
                   uint32_t maxDepth = kDefaultMaxDepth);

} // namespace kelp::ds::xml

#endif // KELP_RUNTIME_DATASTORE_XML_READER_H
