// readModel's quick way through a model file of the usual shape (see
// readQuickly in model.h): one forward pass over the text that hands the
// builder views into it, with no tree, no copies of the texts and no
// allocation per object. It takes only what it can read with certainty
// and gives up on anything else, well-formed or not, so that every
// message comes from the general reader, which then reads the text anew.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "datastore/model.h"
#include "datastore/xml_text.h"

namespace kelp::ds {
namespace {

constexpr size_t npos = std::string_view::npos;

// UTF-8's byte order mark, which may open a document.
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// An object id as the general reader takes one: decimal digits only, 1 to
// 2^32-1, no blanks or references (those are left to the general reader).
bool objectId(std::string_view text, uint32_t *out)
{
    uint32_t value = 0;
    const char *end = text.data() + text.size();
    auto [stop, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || text[0] < '0' || text[0] > '9' || ec != std::errc() || stop != end ||
        value == 0) {
        return false;
    }
    *out = value;
    return true;
}

class QuickReader {
  public:
    explicit QuickReader(std::string_view text) : s_(text) {}

    // The model, or null when the text is not of the shape this reader takes
    // or is not a good model.
    std::shared_ptr<const Model> read(const std::string &origin);

  private:
    // A value as read: a view into the text, or, when it held a reference,
    // a stretch of scratch_ (which may move while an object is read).
    struct Value {
        std::string_view raw;
        size_t decodedAt = npos;
        size_t decodedSize = 0;
    };

    uint32_t lineAt(size_t pos);
    // Whether the text at p_ starts with `what` (a literal: the compare is
    // inlined).
    bool at(std::string_view what) const
    {
        return s_.size() - p_ >= what.size() &&
               std::memcmp(s_.data() + p_, what.data(), what.size()) == 0;
    }
    void skipBlanks();
    size_t nameEnd(size_t pos) const;
    bool skipCommentOrInstruction();
    bool skipMisc();
    bool attribute(std::string_view *name, std::string_view *raw);
    bool tagEnd(bool *empty);
    // Reads a start tag's attributes up to its end (*empty: it closed with
    // "/>"). Each must be the i-th of `names`, at most once, with a value
    // take(i, raw) accepts. The names seen as bits (bit i for names[i]),
    // or -1.
    template <size_t N, class Take>
    int tagAttributes(const std::string_view (&names)[N], bool *empty, Take take);
    bool nameAt(size_t pos, std::string_view name) const;
    bool endTag(std::string_view name);
    bool storage(const std::string &origin, std::optional<Model::Builder> *builder);
    bool object(Model::Builder &builder);
    bool link(Model::Builder &builder);

    std::string_view s_;
    size_t p_ = 0;
    size_t countedTo_ = 0; // lines are counted up to here
    uint32_t countedLine_ = 1;
    std::string scratch_;
    std::vector<std::pair<std::string_view, Value>> read_;
    std::vector<ObjectView::Attribute> attributes_;
    // The attribute names of the objects read so far, by position: of the
    // last object that had one there.
    std::vector<std::string_view> lastNames_;
};

// Positions only move forward here, so each byte is counted once, eight at
// a time: a model has a line feed every 25 bytes or so, too many for a
// search per line to pay.
uint32_t QuickReader::lineAt(size_t pos)
{
    constexpr uint64_t kLow7 = 0x7F7F7F7F7F7F7F7F, kFeeds = 0x0A0A0A0A0A0A0A0A;
    const char *p = s_.data() + countedTo_;
    const char *end = s_.data() + pos;
    size_t feeds = 0;
    for (; end - p >= 8; p += 8) {
        uint64_t word;
        std::memcpy(&word, p, sizeof word);
        // Each byte of x is 0 where a line feed was; the sum sets a byte's
        // high bit when its low seven bits are not all 0, and no byte
        // carries into the next, so `zero` has the high bit of exactly the
        // bytes that were line feeds. The product adds those bits up in
        // its top byte (at most 8), without a population count
        // instruction the target may lack.
        const uint64_t x = word ^ kFeeds;
        const uint64_t zero = ~(((x & kLow7) + kLow7) | x | kLow7);
        feeds += static_cast<size_t>(((zero >> 7) * 0x0101010101010101) >> 56);
    }
    for (; p < end; ++p)
        feeds += *p == '\n' ? 1 : 0;
    countedTo_ = pos;
    countedLine_ += static_cast<uint32_t>(feeds);
    return countedLine_;
}

void QuickReader::skipBlanks()
{
    while (p_ < s_.size() && xml::isSpace(s_[p_]))
        ++p_;
}

size_t QuickReader::nameEnd(size_t pos) const
{
    if (pos >= s_.size() || !xml::isNameStart(s_[pos]))
        return pos;
    while (pos < s_.size() && xml::isNameChar(s_[pos]))
        ++pos;
    return pos;
}

// A comment or a processing instruction at p_, skipped as the general
// reader skips them (to the first close after its opening two bytes).
bool QuickReader::skipCommentOrInstruction()
{
    std::string_view close;
    if (at("<!--"))
        close = "-->";
    else if (at("<?"))
        close = "?>";
    else
        return false;
    const size_t end = s_.find(close, p_ + 2);
    if (end == npos)
        return false;
    p_ = end + close.size();
    return true;
}

// Blanks, comments and processing instructions, up to something else.
bool QuickReader::skipMisc()
{
    for (;;) {
        skipBlanks();
        // Most calls meet an element's '<': two bytes tell it apart.
        if (s_.size() - p_ < 2 || s_[p_] != '<' || (s_[p_ + 1] != '!' && s_[p_ + 1] != '?'))
            return true;
        if (!skipCommentOrInstruction())
            return false;
    }
}

// One attribute of a start tag, blanks before it included: its name and
// its raw value. False at the end of the tag or on anything unusual.
bool QuickReader::attribute(std::string_view *name, std::string_view *raw)
{
    const size_t blanks = p_;
    skipBlanks();
    const size_t nameStop = nameEnd(p_);
    if (p_ == blanks || nameStop == p_)
        return false;
    *name = s_.substr(p_, nameStop - p_);
    p_ = nameStop;
    skipBlanks();
    if (p_ >= s_.size() || s_[p_] != '=')
        return false;
    ++p_;
    skipBlanks();
    if (p_ >= s_.size() || (s_[p_] != '"' && s_[p_] != '\''))
        return false;
    const size_t close = s_.find(s_[p_], p_ + 1);
    if (close == npos)
        return false;
    *raw = s_.substr(p_ + 1, close - p_ - 1);
    if (raw->find('<') != npos)
        return false;
    p_ = close + 1;
    return true;
}

// The end of a start tag after its attributes, blanks before it
// included: '>' or "/>" (*empty). When there is none, p_ stays where it
// was, for the next attribute.
bool QuickReader::tagEnd(bool *empty)
{
    size_t p = p_;
    while (p < s_.size() && xml::isSpace(s_[p]))
        ++p;
    const std::string_view rest = s_.substr(p);
    if (rest.starts_with(">")) {
        *empty = false;
        p_ = p + 1;
        return true;
    }
    if (rest.starts_with("/>")) {
        *empty = true;
        p_ = p + 2;
        return true;
    }
    return false;
}

// Whether the name at pos is `name`, itself a name: the text there starts
// with it and goes on with no name byte.
bool QuickReader::nameAt(size_t pos, std::string_view name) const
{
    const size_t stop = pos + name.size();
    return stop < s_.size() && std::memcmp(s_.data() + pos, name.data(), name.size()) == 0 &&
           !xml::isNameChar(s_[stop]);
}

// "</name>" at p_, blanks allowed before the '>'. When there is none, p_
// stays where it was.
bool QuickReader::endTag(std::string_view name)
{
    if (s_.size() - p_ < 2 || s_[p_] != '<' || s_[p_ + 1] != '/' || !nameAt(p_ + 2, name))
        return false;
    size_t p = p_ + 2 + name.size();
    while (p < s_.size() && xml::isSpace(s_[p]))
        ++p;
    if (p >= s_.size() || s_[p] != '>')
        return false;
    p_ = p + 1;
    return true;
}

// The <storage> start tag, and the builder started with its attributes.
bool QuickReader::storage(const std::string &origin, std::optional<Model::Builder> *builder)
{
    const size_t lt = p_;
    if (!at("<storage"))
        return false;
    p_ = nameEnd(p_ + 1);
    if (p_ != lt + 8)
        return false;
    Attributes storage;
    std::string_view name, raw;
    bool empty = false;
    while (!tagEnd(&empty)) {
        if (!attribute(&name, &raw))
            return false;
        std::string value;
        std::string problem;
        if (xml::decodeReferences(raw, true, &value, &problem) != npos)
            return false;
        storage.emplace_back(std::string(name), std::move(value));
    }
    // A repeated attribute is the XML's problem, found by the general
    // reader; start() refuses it too.
    builder->emplace(std::vector<std::string>{origin}, std::move(storage), Where{0, lineAt(lt)});
    std::string error;
    if (!(*builder)->start(&error))
        return false;
    if (empty) {
        return true;
    }
    for (;;) {
        if (!skipMisc() || p_ >= s_.size() || s_[p_] != '<')
            return false;
        if (endTag("storage"))
            return true;
        const size_t stop = nameEnd(p_ + 1);
        const std::string_view tag = s_.substr(p_ + 1, stop - p_ - 1);
        if (tag == "object") {
            if (!object(**builder))
                return false;
        } else if (tag == "link") {
            if (!link(**builder))
                return false;
        } else {
            return false;
        }
    }
}

template <size_t N, class Take>
int QuickReader::tagAttributes(const std::string_view (&names)[N], bool *empty, Take take)
{
    std::string_view name, raw;
    int seen = 0;
    while (!tagEnd(empty)) {
        if (!attribute(&name, &raw))
            return -1;
        size_t i = 0;
        while (i < N && names[i] != name)
            i++;
        if (i == N || (seen & (1 << i)) != 0 || !take(i, raw))
            return -1;
        seen |= 1 << i;
    }
    return seen;
}

bool QuickReader::object(Model::Builder &builder)
{
    ObjectView o;
    o.where = Where{0, lineAt(p_)};
    p_ += 7; // "<object"
    // id and parent are numbers; type is a name of kObjectTypes, which holds
    // neither blanks other than ' ' nor references.
    static constexpr std::string_view kNames[] = {"id", "parent", "type"};
    bool empty = false;
    const int seen = tagAttributes(kNames, &empty, [&o](size_t i, std::string_view raw) {
        if (i == 0)
            return objectId(raw, &o.id);
        if (i == 1)
            return objectId(raw, &o.parent);
        o.type = raw;
        return objectTypeIndex(raw) >= 0;
    });
    if (seen < 0 || (seen & 5) != 5)
        return false;
    std::string_view name;
    read_.clear();
    scratch_.clear();
    while (!empty) {
        if (!skipMisc() || p_ >= s_.size() || s_[p_] != '<')
            return false;
        if (endTag("object"))
            break;
        // An attribute element: <Name>text</Name> or <Name/>. Objects of a
        // type mostly name their attributes alike and in one order: the
        // name the last object had here is tried before the name is read
        // byte by byte.
        const size_t index = read_.size();
        if (index < lastNames_.size() && nameAt(p_ + 1, lastNames_[index])) {
            name = s_.substr(p_ + 1, lastNames_[index].size());
        } else {
            const size_t stop = nameEnd(p_ + 1);
            if (stop == p_ + 1)
                return false;
            name = s_.substr(p_ + 1, stop - p_ - 1);
        }
        p_ += 1 + name.size();
        bool noText = false;
        if (!tagEnd(&noText))
            return false;
        Value value;
        if (!noText) {
            const size_t lt = s_.find('<', p_);
            if (lt == npos)
                return false;
            value.raw = s_.substr(p_, lt - p_);
            p_ = lt;
            if (!endTag(name))
                return false;
            if (value.raw.find('&') != npos) {
                value.decodedAt = scratch_.size();
                std::string problem;
                if (xml::decodeReferences(value.raw, false, &scratch_, &problem) != npos)
                    return false;
                value.decodedSize = scratch_.size() - value.decodedAt;
            }
        }
        read_.emplace_back(name, value);
    }
    lastNames_.resize(std::max(lastNames_.size(), read_.size()));
    attributes_.clear();
    for (const auto &[attributeName, value] : read_) {
        lastNames_[attributes_.size()] = attributeName;
        attributes_.emplace_back(attributeName, value.decodedAt == npos
                                                    ? value.raw
                                                    : std::string_view(scratch_).substr(
                                                          value.decodedAt, value.decodedSize));
    }
    o.attributes = attributes_;
    std::string error;
    return builder.add(o, &error);
}

bool QuickReader::link(Model::Builder &builder)
{
    LinkData l;
    l.where = Where{0, lineAt(p_)};
    p_ += 5; // "<link"
    static constexpr std::string_view kNames[] = {"a", "b"};
    bool empty = false;
    const int seen = tagAttributes(kNames, &empty, [&l](size_t i, std::string_view raw) {
        return objectId(raw, i == 0 ? &l.a : &l.b);
    });
    if (seen != 3)
        return false;
    if (!empty) {
        skipBlanks();
        if (!endTag("link"))
            return false;
    }
    builder.addLink(l);
    return true;
}

std::shared_ptr<const Model> QuickReader::read(const std::string &origin)
{
    if (xml::firstBadByte(s_) != npos)
        return nullptr;
    if (s_.starts_with(kByteOrderMark))
        p_ = kByteOrderMark.size();
    std::optional<Model::Builder> builder;
    if (!skipMisc() || !storage(origin, &builder) || !skipMisc() || p_ != s_.size())
        return nullptr;
    std::string error;
    return builder->finish(&error);
}

} // namespace

std::shared_ptr<const Model> readQuickly(std::string_view text, const std::string &origin)
{
    return QuickReader(text).read(origin);
}

} // namespace kelp::ds
