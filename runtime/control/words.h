// The word syntax of the control protocol: a command line is words separated
// by blanks, and a word may be double-quoted with \" \\ \n \t escapes.
// Header-only so that kelpctl, which links nothing of the runtime, quotes
// words exactly as the server reads them.
#ifndef KELP_RUNTIME_CONTROL_WORDS_H
#define KELP_RUNTIME_CONTROL_WORDS_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace kelp::ctl {

// Longest command line the server reads, without its "\n".
inline constexpr size_t kMaxLineBytes = 64 * 1024;

// Splits a command line (without its "\n") into *words. Words are separated
// by spaces and tabs. A word that starts with '"' runs to the next unescaped
// '"' and may hold blanks and the escapes \" \\ \n \t; it must be followed by
// a blank or the end of the line. A '"' inside an unquoted word is an error,
// and so is any other escape, a quote left open, a NUL byte, or a line over
// kMaxLineBytes. A blank line answers true with no words. On error answers
// false with a message naming the column (1-based) of the fault in *error; *words is then
// unspecified.
inline bool splitWords(std::string_view line, std::vector<std::string> *words, std::string *error)
{
    auto fail = [&](const std::string &message, size_t index) {
        *error = message + " (column " + std::to_string(index + 1) + ")";
        return false;
    };
    words->clear();
    if (line.size() > kMaxLineBytes) {
        *error = "command line is " + std::to_string(line.size()) + " bytes, more than " +
                 std::to_string(kMaxLineBytes);
        return false;
    }
    size_t i = 0;
    while (true) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
            ++i;
        if (i == line.size())
            return true;
        std::string word;
        if (line[i] == '"') {
            const size_t open = i++;
            while (true) {
                if (i == line.size())
                    return fail("quote never closed", open);
                char c = line[i];
                if (c == '\0')
                    return fail("NUL byte in the command line", i);
                if (c == '"')
                    break;
                if (c == '\\') {
                    if (i + 1 == line.size())
                        return fail("quote never closed", open);
                    switch (line[i + 1]) {
                    case '"':
                        c = '"';
                        break;
                    case '\\':
                        c = '\\';
                        break;
                    case 'n':
                        c = '\n';
                        break;
                    case 't':
                        c = '\t';
                        break;
                    default:
                        return fail("unknown escape in a quoted word (known: \\\" \\\\ \\n \\t)",
                                    i);
                    }
                    ++i;
                }
                word += c;
                ++i;
            }
            ++i; // the closing quote
            if (i < line.size() && line[i] != ' ' && line[i] != '\t')
                return fail("a quoted word must be followed by a blank", i);
        } else {
            while (i < line.size() && line[i] != ' ' && line[i] != '\t') {
                if (line[i] == '"')
                    return fail("quote inside an unquoted word (quote the whole word)", i);
                if (line[i] == '\0')
                    return fail("NUL byte in the command line", i);
                word += line[i++];
            }
        }
        words->push_back(std::move(word));
    }
}

// word as one quoted word that splitWords reads back as word, whatever
// bytes it holds (NUL aside, which no command line may carry).
inline std::string quoteWord(std::string_view word)
{
    std::string quoted = "\"";
    for (char c : word) {
        switch (c) {
        case '"':
            quoted += "\\\"";
            break;
        case '\\':
            quoted += "\\\\";
            break;
        case '\n':
            quoted += "\\n";
            break;
        case '\t':
            quoted += "\\t";
            break;
        default:
            quoted += c;
        }
    }
    quoted += '"';
    return quoted;
}

// text fit for one line of the protocol: line breaks and other control bytes
// (tab aside) are shown as \n, \r or \xNN, so a message that quotes a client's
// word can never end the line early.
inline std::string printableLine(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if ((u < 0x20 && c != '\t') || u == 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", u);
            out += hex;
        } else {
            out += c;
        }
    }
    return out;
}

} // namespace kelp::ctl

#endif // KELP_RUNTIME_CONTROL_WORDS_H
