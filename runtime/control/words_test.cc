// The word syntax of the control protocol: blanks, quotes, escapes, the
// faults that are refused, and quoting that reads back exactly.
#include "control/words.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using kelp::ctl::splitWords;
using Words = std::vector<std::string>;

TEST(WordsTest, SplitsAtBlanksAndReadsQuotedWords)
{
    struct Case {
        std::string line;
        Words words;
    } cases[] = {
        {"status", {"status"}},
        {"  set\t20  Name   x  ", {"set", "20", "Name", "x"}},
        {R"(set 20 Name "two words")", {"set", "20", "Name", "two words"}},
        {R"("")", {""}},
        {R"(a "" b)", {"a", "", "b"}},
        {R"("q\"uote" "back\\slash" "line\nbreak" "tab\tstop")",
         {"q\"uote", "back\\slash", "line\nbreak", "tab\tstop"}},
        {"\"raw\ttab and \\\\n\"", {"raw\ttab and \\n"}},
        {R"(unquoted\backslash)", {"unquoted\\backslash"}},
        {"caf\xc3\xa9 \"\xe2\x82\xac\"", {"caf\xc3\xa9", "\xe2\x82\xac"}},
        {"a\rb", {"a\rb"}},
    };
    for (const auto &c : cases) {
        Words words;
        std::string error;
        ASSERT_TRUE(splitWords(c.line, &words, &error)) << c.line << ": " << error;
        EXPECT_EQ(words, c.words) << c.line;
    }
}

TEST(WordsTest, BlankOrEmptyLineHasNoWords)
{
    for (const char *line : {"", " ", "\t \t"}) {
        Words words{"stale"};
        std::string error;
        EXPECT_TRUE(splitWords(line, &words, &error));
        EXPECT_TRUE(words.empty()) << '"' << line << '"';
    }
}

TEST(WordsTest, RefusesBadQuotesEscapesAndNulNamingTheColumn)
{
    struct Case {
        std::string line;
        const char *message;
    } cases[] = {
        {R"(set "open)", "quote never closed (column 5)"},
        {R"(set "ends in backslash\)", "quote never closed (column 5)"},
        {R"("bad \x escape")",
         "unknown escape in a quoted word (known: \\\" \\\\ \\n \\t) (column 6)"},
        {R"("glued"word)", "a quoted word must be followed by a blank (column 8)"},
        {R"(in"side)", "quote inside an unquoted word (quote the whole word) (column 3)"},
        {std::string("a\0b", 3), "NUL byte in the command line (column 2)"},
        {std::string("\"a\0b\"", 5), "NUL byte in the command line (column 3)"},
    };
    for (const auto &c : cases) {
        Words words;
        std::string error;
        EXPECT_FALSE(splitWords(c.line, &words, &error)) << c.line;
        EXPECT_EQ(error, c.message) << c.line;
    }
}

TEST(WordsTest, RefusesLinesOver64KiB)
{
    Words words;
    std::string error;
    std::string longest(kelp::ctl::kMaxLineBytes, 'x');
    EXPECT_TRUE(splitWords(longest, &words, &error)) << error;
    EXPECT_FALSE(splitWords(longest + "x", &words, &error));
    EXPECT_EQ(error, "command line is 65537 bytes, more than 65536");
}

TEST(WordsTest, QuotedWordsReadBackExactly)
{
    const Words words = {"",     "plain", "two words", "\"",    "\\",           "\\n",
                         "a\nb", "\t",    "x\ry",      "--xml", "<a b=\"c\"/>", "\xff\x01"};
    std::string line;
    for (const auto &w : words)
        line += kelp::ctl::quoteWord(w) + " ";
    Words back;
    std::string error;
    ASSERT_TRUE(splitWords(line, &back, &error)) << error;
    EXPECT_EQ(back, words);
    EXPECT_EQ(line.find('\n'), std::string::npos);
}

TEST(WordsTest, PrintableLineShowsLineBreaksAndControlBytes)
{
    EXPECT_EQ(kelp::ctl::printableLine("a\nb\rc\td\x01\x7f"
                                       "caf\xc3\xa9"),
              "a\\nb\\rc\td\\x01\\x7f"
              "caf\xc3\xa9");
}

} // namespace
