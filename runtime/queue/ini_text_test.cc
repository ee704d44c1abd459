// The ini text format: classification of lines, quoting, and edits that keep
// every other line as it was.
#include "queue/ini_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using kelp::rt::ini::LineKind;

struct LineCase {
    const char *text;
    LineKind kind;
    const char *name;
    const char *value;
};

// Each text is parsed after a "[s]" header line.
const LineCase kLineCases[] = {
    {"", LineKind::Blank, "", ""},
    {"   \t ", LineKind::Blank, "", ""},
    {"; comment", LineKind::Comment, "", ""},
    {"  # comment", LineKind::Comment, "", ""},
    {"key=value", LineKind::Entry, "key", "value"},
    {"  Key Name  =  some value  ", LineKind::Entry, "Key Name", "some value"},
    {"key=", LineKind::Entry, "key", ""},
    {"key=a=b", LineKind::Entry, "key", "a=b"},
    {"key=value ; not a comment", LineKind::Entry, "key", "value ; not a comment"},
    {"AggregateEvents=\"On \"", LineKind::Entry, "AggregateEvents", "On "},
    {"k = \"  both  \" ", LineKind::Entry, "k", "  both  "},
    {"k=\"\"", LineKind::Entry, "k", ""},
    {"k=\"", LineKind::Entry, "k", "\""},
    {"k=\"open", LineKind::Entry, "k", "\"open"},
    {"k=v\r", LineKind::Entry, "k", "v"},
    {"k=caf\xC3\xA9", LineKind::Entry, "k", "caf\xC3\xA9"},
    {"[other]", LineKind::Section, "other", ""},
    {"[ spaced name ]  ; note", LineKind::Section, "spaced name", ""},
    {"no equals sign", LineKind::Malformed, "", ""},
    {"=value", LineKind::Malformed, "", ""},
    {"  = value", LineKind::Malformed, "", ""},
    {"[unterminated", LineKind::Malformed, "", ""},
    {"[]", LineKind::Malformed, "", ""},
    {"[s] trailing", LineKind::Malformed, "", ""},
    {"k=v\x01", LineKind::Malformed, "", ""},
    {"k=v\x7F", LineKind::Malformed, "", ""},
    {"k=a\rb", LineKind::Malformed, "", ""},
};

TEST(IniTextTest, LinesAreClassifiedAndValuesUnquoted)
{
    for (const auto &c : kLineCases) {
        auto doc = kelp::rt::ini::parse(std::string("[s]\n") + c.text + "\n");
        ASSERT_EQ(doc.lines.size(), 2u) << c.text;
        const auto &line = doc.lines[1];
        EXPECT_EQ(line.kind, c.kind) << '"' << c.text << '"';
        if (c.kind == LineKind::Entry || c.kind == LineKind::Section) {
            EXPECT_EQ(line.name, c.name) << c.text;
        }
        if (c.kind == LineKind::Entry) {
            EXPECT_EQ(line.value, c.value) << c.text;
        }
        if (c.kind == LineKind::Malformed) {
            EXPECT_FALSE(line.problem.empty()) << c.text;
        }
    }
}

// Editors on other systems start a UTF-8 file with a byte order mark: the
// first section is still a section, and the mark is written back.
TEST(IniTextTest, AByteOrderMarkBeforeTheFirstLineIsKeptAside)
{
    const std::string text = "\xEF\xBB\xBF[s]\nk=v\n";
    auto doc = kelp::rt::ini::parse(text);
    ASSERT_EQ(doc.lines.size(), 2u);
    EXPECT_EQ(doc.lines[0].kind, LineKind::Section);
    EXPECT_EQ(kelp::rt::ini::find(doc, "s", "k"), "v");
    EXPECT_EQ(kelp::rt::ini::serialise(doc), text);
    kelp::rt::ini::set(doc, "s", "m", "1");
    EXPECT_EQ(kelp::rt::ini::serialise(doc), text + "m=1\n");
    // Only at the start of the text: further on the bytes are a key's.
    auto later = kelp::rt::ini::parse("[s]\n\xEF\xBB\xBFk=v\n");
    EXPECT_EQ(kelp::rt::ini::find(later, "s", "k"), std::nullopt);
}

TEST(IniTextTest, NulByteMakesALineMalformed)
{
    const char text[] = "[s]\nk=a\0b\nm=1\n";
    auto doc = kelp::rt::ini::parse(std::string(text, sizeof text - 1));
    ASSERT_EQ(doc.lines.size(), 3u);
    EXPECT_EQ(doc.lines[1].kind, LineKind::Malformed);
    EXPECT_EQ(kelp::rt::ini::find(doc, "s", "m"), "1");
}

TEST(IniTextTest, KeyBeforeAnySectionIsMalformed)
{
    auto doc = kelp::rt::ini::parse("k=v\n[s]\nk=w\n");
    EXPECT_EQ(doc.lines[0].kind, LineKind::Malformed);
    EXPECT_EQ(kelp::rt::ini::find(doc, "s", "k"), "w");
}

TEST(IniTextTest, KeysAfterABadHeaderBelongToNoSection)
{
    auto doc = kelp::rt::ini::parse("[a]\nk=1\n[b\nk=2\n[c]\nk=3\n");
    EXPECT_EQ(doc.lines[3].kind, LineKind::Malformed);
    EXPECT_EQ(kelp::rt::ini::find(doc, "a", "k"), "1");
    EXPECT_EQ(kelp::rt::ini::find(doc, "c", "k"), "3");
}

TEST(IniTextTest, LineOver64KiBIsMalformed)
{
    std::string text = "[s]\nk=" + std::string(64 * 1024, 'x') + "\nm=1\n";
    auto doc = kelp::rt::ini::parse(text);
    EXPECT_EQ(doc.lines[1].kind, LineKind::Malformed);
    EXPECT_EQ(kelp::rt::ini::find(doc, "s", "m"), "1");
    EXPECT_EQ(kelp::rt::ini::serialise(doc), text); // kept for the next write
}

TEST(IniTextTest, FindIgnoresAsciiCaseAndTakesTheFirstEntry)
{
    auto doc = kelp::rt::ini::parse("[General]\nDebugSNMP=On\ndebugsnmp=Off\n[GENERAL]\nX=1\n");
    EXPECT_EQ(kelp::rt::ini::find(doc, "general", "DEBUGSNMP"), "On");
    EXPECT_EQ(kelp::rt::ini::find(doc, "general", "x"), "1");
    EXPECT_EQ(kelp::rt::ini::find(doc, "general", "missing"), std::nullopt);
    EXPECT_EQ(kelp::rt::ini::find(doc, "vcsipe", "X"), std::nullopt);
}

TEST(IniTextTest, ValuesAreQuotedWhenTheirEdgesNeedIt)
{
    struct Case {
        const char *value, *written;
    } cases[] = {
        {"On", "On"}, {"On ", "\"On \""}, {" x", "\" x\""},       {"\tx", "\"\tx\""},
        {"", ""},     {"a b", "a b"},     {"\"q\"", "\"\"q\"\""}, {"a\"b", "a\"b"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(kelp::rt::ini::formatValue(c.value), c.written) << c.value;
        auto doc = kelp::rt::ini::parse(std::string("[s]\nk=") + c.written + "\n");
        EXPECT_EQ(kelp::rt::ini::find(doc, "s", "k"), c.value) << "round trip of " << c.value;
    }
}

struct SetCase {
    const char *name;
    const char *before;
    const char *section, *key, *value;
    const char *after;
};

const SetCase kSetCases[] = {
    {"empty store", "", "general", "DebugSNMP", "Off", "[general]\nDebugSNMP=Off\n"},
    {"rewrites in place keeping the key's spelling and spacing",
     "; top\n[General]\n  DebugSnmp = On   \nX=1\n", "general", "debugsnmp", "Off",
     "; top\n[General]\n  DebugSnmp = Off\nX=1\n"},
    {"adds after the section's last entry, before blank lines and the next section",
     "[a]\nk=1\n; note\nj=2\n\n[b]\nk=3\n", "A", "new", "v",
     "[a]\nk=1\n; note\nj=2\nnew=v\n\n[b]\nk=3\n"},
    {"adds right after an empty section's header", "[a]\n\n[b]\n", "a", "k", "v",
     "[a]\nk=v\n\n[b]\n"},
    {"appends a missing section after a blank line", "[a]\nk=1", "b", "k", "2",
     "[a]\nk=1\n\n[b]\nk=2\n"},
    {"keeps malformed lines", "junk\n[a]\nbad line\nk=1\n", "a", "k", "2",
     "junk\n[a]\nbad line\nk=2\n"},
    {"keeps CRLF endings", "[a]\r\nk=1\r\n", "a", "j", "2", "[a]\r\nk=1\r\nj=2\r\n"},
    {"rewrites a CRLF line", "[a]\r\nk=1\r\n", "a", "k", "2", "[a]\r\nk=2\r\n"},
    {"quotes a value with blanks", "[vcsipe]\n", "vcsipe", "AggregateEvents", "On ",
     "[vcsipe]\nAggregateEvents=\"On \"\n"},
    {"file without sections", "a=1\nb=2\n", "s", "k", "v", "a=1\nb=2\n\n[s]\nk=v\n"},
};

TEST(IniTextTest, SetChangesOnlyWhatItMust)
{
    for (const auto &c : kSetCases) {
        auto doc = kelp::rt::ini::parse(c.before);
        kelp::rt::ini::set(doc, c.section, c.key, c.value);
        EXPECT_EQ(kelp::rt::ini::serialise(doc), c.after) << c.name;
        EXPECT_EQ(kelp::rt::ini::find(doc, c.section, c.key), c.value) << c.name;
        // What was set reads back from the written text too.
        auto reread = kelp::rt::ini::parse(kelp::rt::ini::serialise(doc));
        EXPECT_EQ(kelp::rt::ini::find(reread, c.section, c.key), c.value) << c.name;
    }
}

TEST(IniTextTest, SetKeepsLaterSectionsReadable)
{
    auto doc = kelp::rt::ini::parse("[a]\nk=1\n[b]\nk=2\n[c]\nk=3\n");
    kelp::rt::ini::set(doc, "a", "n1", "x");
    kelp::rt::ini::set(doc, "b", "n2", "y");
    EXPECT_EQ(kelp::rt::ini::find(doc, "b", "k"), "2");
    EXPECT_EQ(kelp::rt::ini::find(doc, "c", "k"), "3");
    EXPECT_EQ(kelp::rt::ini::find(doc, "b", "n2"), "y");
    kelp::rt::ini::set(doc, "c", "k", "4");
    EXPECT_EQ(kelp::rt::ini::serialise(doc), "[a]\nk=1\nn1=x\n[b]\nk=2\nn2=y\n[c]\nk=4\n");
}

TEST(IniTextTest, WritableRefusesWhatCouldNotReadBack)
{
    EXPECT_TRUE(kelp::rt::ini::writable("general", "DebugSNMP", "Off"));
    EXPECT_TRUE(kelp::rt::ini::writable("general", "k", ""));
    EXPECT_TRUE(kelp::rt::ini::writable("general", "k", " spaced "));
    EXPECT_FALSE(kelp::rt::ini::writable("", "k", "v"));
    EXPECT_FALSE(kelp::rt::ini::writable(" s", "k", "v"));
    EXPECT_FALSE(kelp::rt::ini::writable("a]b", "k", "v"));
    EXPECT_FALSE(kelp::rt::ini::writable("s", "", "v"));
    EXPECT_FALSE(kelp::rt::ini::writable("s", "a=b", "v"));
    EXPECT_FALSE(kelp::rt::ini::writable("s", ";k", "v"));
    EXPECT_FALSE(kelp::rt::ini::writable("s", "[k", "v"));
    EXPECT_FALSE(kelp::rt::ini::writable("s", "k ", "v"));
    EXPECT_FALSE(kelp::rt::ini::writable("s", "k", "line\nbreak"));
    EXPECT_FALSE(kelp::rt::ini::writable("s", "k", "cr\r"));
    EXPECT_FALSE(kelp::rt::ini::writable("s", "k", std::string(64 * 1024, 'x')));
}

} // namespace
