// The strict XML reader behind model files and added objects (see
// xml_reader.h). One forward pass with an explicit stack, so neither deep
// nesting nor a long text can exhaust the call stack; every access is bounded
// by the string_view.
#include "datastore/xml_reader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <unordered_set>

#include "datastore/xml_text.h"

namespace kelp::ds::xml {
namespace {

constexpr size_t npos = std::string_view::npos;

// UTF-8's byte order mark, which may open a document and nothing else.
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// The attribute names of one start tag so far, as views into the text, so
// that a repeat is found in constant time however many attributes a tag has
// (<storage> may carry any number). Most tags have a few: those are
// compared in place, without allocating.
class SeenNames {
  public:
    // False when name was seen before; else remembers it.
    bool insert(std::string_view name)
    {
        if (count_ < few_.size()) {
            for (size_t i = 0; i < count_; ++i) {
                if (few_[i] == name)
                    return false;
            }
            few_[count_++] = name;
            return true;
        }
        if (many_.empty())
            many_.insert(few_.begin(), few_.end());
        return many_.insert(name).second;
    }

  private:
    std::array<std::string_view, 8> few_;
    size_t count_ = 0;
    std::unordered_set<std::string_view> many_;
};

class Reader {
  public:
    Reader(std::string_view text, uint32_t maxDepth, Error *error, const ChildSink *sink = nullptr)
        : s_(text), maxDepth_(maxDepth), error_(error), sink_(sink)
    {
    }

    // Parses the whole text as content of a virtual root; document mode
    // requires exactly one element there and no text.
    bool run(bool document, std::vector<Element> *top);

  private:
    uint32_t lineAt(size_t pos);
    bool fail(size_t pos, std::string message);
    bool fail(uint32_t line, std::string message);
    size_t nameEnd(size_t pos) const;
    bool decode(std::string_view raw, size_t base, bool blankSpace, std::string *out);
    bool text(size_t end);
    bool startTag(size_t lt, bool document);
    bool endTag(size_t lt);
    void closed(Element &&e);

    std::string_view s_;
    uint32_t maxDepth_;
    Error *error_;
    const ChildSink *sink_; // takes the children of the root, when set
    size_t pos_ = 0;
    size_t childHint_ = 0; // children of the element closed last that had any
    size_t countedTo_ = 0; // lines are counted up to here
    uint32_t countedLine_ = 1;
    std::vector<Element> stack_; // [0] is the virtual root
};

uint32_t Reader::lineAt(size_t pos)
{
    if (pos < countedTo_) { // only errors look back; count again from the start
        countedTo_ = 0;
        countedLine_ = 1;
    }
    const size_t to = std::min(pos, s_.size());
    if (countedTo_ < to) {
        const char *p = s_.data() + countedTo_;
        const char *end = s_.data() + to;
        while ((p = static_cast<const char *>(
                    std::memchr(p, '\n', static_cast<size_t>(end - p)))) != nullptr) {
            ++countedLine_;
            ++p;
        }
        countedTo_ = to;
    }
    return countedLine_;
}

bool Reader::fail(size_t pos, std::string message)
{
    return fail(lineAt(pos), std::move(message));
}

bool Reader::fail(uint32_t line, std::string message)
{
    if (error_ != nullptr) {
        error_->line = line;
        error_->message = std::move(message);
    }
    return false;
}

size_t Reader::nameEnd(size_t pos) const
{
    if (pos >= s_.size() || !isNameStart(s_[pos]))
        return pos;
    while (pos < s_.size() && isNameChar(s_[pos]))
        ++pos;
    return pos;
}

// Appends raw with its references replaced (decodeReferences); base is
// raw's offset in the text, for the line of an error.
bool Reader::decode(std::string_view raw, size_t base, bool blankSpace, std::string *out)
{
    std::string problem;
    const size_t bad = decodeReferences(raw, blankSpace, out, &problem);
    return bad == npos || fail(base + bad, std::move(problem));
}

// Character data from pos_ up to end.
bool Reader::text(size_t end)
{
    std::string_view raw = s_.substr(pos_, end - pos_);
    size_t firstInk = 0;
    while (firstInk < raw.size() && isSpace(raw[firstInk]))
        ++firstInk;
    if (stack_.size() == 1) {
        if (raw.substr(firstInk).starts_with(kByteOrderMark))
            return fail(pos_ + firstInk, "a byte order mark (EF BB BF) other than at the very "
                                         "start of the text");
        if (firstInk < raw.size())
            return fail(pos_ + firstInk, "text outside an element");
        pos_ = end;
        return true;
    }
    Element &open = stack_.back();
    if (firstInk < raw.size() && open.textLine == 0)
        open.textLine = lineAt(pos_ + firstInk);
    if (!decode(raw, pos_, false, &open.text))
        return false;
    pos_ = end;
    return true;
}

bool Reader::startTag(size_t lt, bool document)
{
    size_t end = nameEnd(lt + 1);
    if (end == lt + 1)
        return fail(lt, "'<' that does not start a tag (write &lt;)");
    Element e;
    e.name = std::string(s_.substr(lt + 1, end - lt - 1));
    e.line = lineAt(lt);
    if (document && stack_.size() == 1 && !stack_[0].children.empty())
        return fail(e.line, "a second root element <" + e.name + ">");
    if (stack_.size() > maxDepth_)
        return fail(e.line, "<" + e.name + "> is nested deeper than " + std::to_string(maxDepth_) +
                                " levels");
    SeenNames seen;
    size_t p = end;
    for (;;) {
        size_t blanks = p;
        while (p < s_.size() && isSpace(s_[p]))
            ++p;
        if (p >= s_.size())
            return fail(e.line, "start tag <" + e.name + "> is not closed");
        if (s_[p] == '>' || s_.substr(p, 2) == "/>")
            break;
        size_t nameStop = nameEnd(p);
        if (p == blanks || nameStop == p)
            return fail(p, "bad attribute in <" + e.name + ">");
        Attribute a;
        const std::string_view name = s_.substr(p, nameStop - p);
        a.name = std::string(name);
        p = nameStop;
        while (p < s_.size() && isSpace(s_[p]))
            ++p;
        if (p >= s_.size() || s_[p] != '=')
            return fail(p, "attribute " + a.name + " of <" + e.name + "> has no value");
        ++p;
        while (p < s_.size() && isSpace(s_[p]))
            ++p;
        if (p >= s_.size() || (s_[p] != '"' && s_[p] != '\''))
            return fail(p, "value of attribute " + a.name + " is not quoted");
        size_t close = s_.find(s_[p], p + 1);
        if (close == npos)
            return fail(p, "value of attribute " + a.name + " is not closed");
        std::string_view raw = s_.substr(p + 1, close - p - 1);
        if (size_t bad = raw.find('<'); bad != npos)
            return fail(p + 1 + bad, "'<' in the value of attribute " + a.name);
        if (!decode(raw, p + 1, true, &a.value))
            return false;
        if (!seen.insert(name))
            return fail(p, "attribute " + a.name + " repeated in <" + e.name + ">");
        e.attributes.push_back(std::move(a));
        p = close + 1;
    }
    if (s_[p] == '/') {
        pos_ = p + 2;
        closed(std::move(e));
    } else {
        pos_ = p + 1;
        stack_.push_back(std::move(e));
    }
    return true;
}

// An element just closed goes to its parent, or to the sink when that is
// the root element (stack_[1]; stack_[0] is the virtual root).
void Reader::closed(Element &&e)
{
    // Siblings mostly hold as many children as the one before: room for
    // that many (up to a bound) saves moving elements as a vector grows.
    if (!e.children.empty())
        childHint_ = std::min<size_t>(e.children.size(), 64);
    if (sink_ != nullptr && stack_.size() == 2) {
        (*sink_)(stack_[1], e);
        return;
    }
    std::vector<Element> &siblings = stack_.back().children;
    if (siblings.empty())
        siblings.reserve(childHint_);
    siblings.push_back(std::move(e));
}

bool Reader::endTag(size_t lt)
{
    size_t end = nameEnd(lt + 2);
    std::string_view name = s_.substr(lt + 2, end - lt - 2);
    size_t p = end;
    while (p < s_.size() && isSpace(s_[p]))
        ++p;
    if (name.empty() || p >= s_.size() || s_[p] != '>')
        return fail(lt, "bad end tag");
    if (stack_.size() == 1)
        return fail(lt, "end tag </" + std::string(name) + "> without a start tag");
    const Element &open = stack_.back();
    if (name != open.name) {
        return fail(lt, "</" + std::string(name) + "> does not close <" + open.name + "> (line " +
                            std::to_string(open.line) + ")");
    }
    Element done = std::move(stack_.back());
    stack_.pop_back();
    closed(std::move(done));
    pos_ = p + 1;
    return true;
}

bool Reader::run(bool document, std::vector<Element> *top)
{
    if (size_t bad = firstBadByte(s_); bad != npos)
        return fail(bad, "a byte that is not UTF-8 text, or a control character");
    stack_.assign(1, Element());
    // A document may begin with a byte order mark; it says the text is UTF-8,
    // which it must be anyway.
    if (document && s_.starts_with(kByteOrderMark))
        pos_ = kByteOrderMark.size();
    while (pos_ < s_.size()) {
        size_t lt = s_.find('<', pos_);
        if (lt != pos_) {
            if (!text(lt == npos ? s_.size() : lt))
                return false;
            continue;
        }
        std::string_view rest = s_.substr(lt);
        auto skipTo = [&](std::string_view close, const char *what) {
            size_t end = s_.find(close, lt + 2);
            if (end == npos)
                return fail(lt, std::string(what) + " is not closed");
            pos_ = end + close.size();
            return true;
        };
        bool ok = true;
        if (rest.starts_with("<!--")) {
            ok = skipTo("-->", "comment");
        } else if (rest.starts_with("<![CDATA[")) {
            if (stack_.size() == 1)
                return fail(lt, "CDATA outside an element");
            size_t end = s_.find("]]>", lt + 9);
            if (end == npos)
                return fail(lt, "CDATA section is not closed");
            Element &open = stack_.back();
            std::string_view data = s_.substr(lt + 9, end - lt - 9);
            size_t ink = 0;
            while (ink < data.size() && isSpace(data[ink]))
                ++ink;
            if (ink < data.size() && open.textLine == 0)
                open.textLine = lineAt(lt + 9 + ink);
            open.text.append(data);
            pos_ = end + 3;
        } else if (rest.starts_with("<?")) {
            ok = skipTo("?>", "processing instruction");
        } else if (rest.starts_with("<!")) {
            return fail(lt, "DOCTYPE and other declarations are not supported");
        } else if (rest.starts_with("</")) {
            ok = endTag(lt);
        } else {
            ok = startTag(lt, document);
        }
        if (!ok)
            return false;
    }
    if (stack_.size() > 1) {
        const Element &open = stack_.back();
        return fail(open.line, "<" + open.name + "> is not closed");
    }
    if (document && stack_[0].children.empty())
        return fail(lineAt(s_.size()), "no root element");
    *top = std::move(stack_[0].children);
    return true;
}

} // namespace

const std::string *Element::attribute(std::string_view attributeName) const
{
    for (const auto &a : attributes) {
        if (a.name == attributeName)
            return &a.value;
    }
    return nullptr;
}

bool parseDocument(std::string_view text, Element *root, Error *error, uint32_t maxDepth)
{
    std::vector<Element> top;
    if (!Reader(text, maxDepth, error).run(true, &top))
        return false;
    *root = std::move(top.front());
    return true;
}

bool parseDocument(std::string_view text, Element *root, Error *error, uint32_t maxDepth,
                   const ChildSink &sink)
{
    std::vector<Element> top;
    if (!Reader(text, maxDepth, error, &sink).run(true, &top))
        return false;
    *root = std::move(top.front());
    return true;
}

bool parseFragment(std::string_view text, std::vector<Element> *elements, Error *error,
                   uint32_t maxDepth)
{
    return Reader(text, maxDepth, error).run(false, elements);
}

} // namespace kelp::ds::xml
