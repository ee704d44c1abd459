#include "messagebounds.h"

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

using Bytes = std::vector<uint8_t>;

// Reads `stream` as the agent reads a connection, each read bounded as
// `bounds` says and at most `most` bytes (the reader's buffer, or what has
// arrived); answers the sizes of the reads.
std::vector<size_t> readAll(MessageBounds *bounds, const Bytes &stream, size_t most)
{
    std::vector<size_t> reads;
    size_t at = 0;
    while (at < stream.size()) {
        const size_t available = stream.size() - at;
        const size_t peek = std::min(bounds->headerToPeek(), available);
        size_t bound = bounds->nextRead(stream.data() + at, peek);
        size_t read = std::min(most, available);
        if (bound > 0) {
            read = std::min(read, bound);
        }
        bounds->took(stream.data() + at, read);
        reads.push_back(read);
        at += read;
    }
    return reads;
}

Bytes message(size_t content)
{
    Bytes bytes{0x30};
    if (content < 0x80) {
        bytes.push_back(uint8_t(content));
    } else if (content < 0x100) {
        bytes.insert(bytes.end(), {0x81, uint8_t(content)});
    } else {
        bytes.insert(bytes.end(), {0x82, uint8_t(content >> 8), uint8_t(content)});
    }
    bytes.resize(bytes.size() + content, 0x04);
    return bytes;
}

Bytes concat(const std::vector<Bytes> &parts)
{
    Bytes all;
    for (const Bytes &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

TEST(MessageBounds, EachReadEndsWithTheMessageItIsIn)
{
    MessageBounds bounds;
    // Short, one-octet and two-octet lengths, back to back.
    const Bytes stream = concat({message(3), message(0), message(200), message(1000), message(5)});
    EXPECT_EQ(readAll(&bounds, stream, 65536), (std::vector<size_t>{5, 2, 203, 1004, 7}));
    EXPECT_FALSE(bounds.broken());
}

TEST(MessageBounds, AMessageLargerThanAReadTakesSeveral)
{
    MessageBounds bounds;
    const Bytes stream = concat({message(1000), message(3)});
    EXPECT_EQ(readAll(&bounds, stream, 300), (std::vector<size_t>{300, 300, 300, 104, 5}));
}

TEST(MessageBounds, AHeaderThatArrivesInPiecesIsPutTogether)
{
    MessageBounds bounds;
    const Bytes stream = concat({message(300), message(1)});
    // One byte at a time through the header: 0x30, 0x82, then the length.
    std::vector<size_t> reads = readAll(&bounds, Bytes(stream.begin(), stream.begin() + 1), 1);
    EXPECT_EQ(reads, std::vector<size_t>{1});
    EXPECT_EQ(bounds.headerToPeek(), MessageBounds::kMaxHeader - 1);
    reads = readAll(&bounds, Bytes(stream.begin() + 1, stream.begin() + 3), 65536);
    // 0x82 and the first length octet: still part of the header.
    EXPECT_EQ(reads, std::vector<size_t>{2});
    const Bytes rest(stream.begin() + 3, stream.end());
    EXPECT_EQ(bounds.nextRead(rest.data(), 3), 1u + 300u);
    EXPECT_EQ(readAll(&bounds, rest, 65536), (std::vector<size_t>{301, 3}));
}

TEST(MessageBounds, AStreamOfOtherThanDefiniteSequencesIsLeftUnbounded)
{
    for (const Bytes &start : {Bytes{0x31, 0x03, 1, 2, 3}, Bytes{0x30, 0x80, 1, 2, 0, 0},
                               Bytes{0x30, 0x85, 0, 0, 0, 0, 1}}) {
        MessageBounds bounds;
        EXPECT_EQ(bounds.nextRead(start.data(), std::min(start.size(), MessageBounds::kMaxHeader)),
                  0u);
        bounds.took(start.data(), start.size());
        EXPECT_TRUE(bounds.broken());
        EXPECT_EQ(bounds.headerToPeek(), 0u);
        EXPECT_EQ(bounds.nextRead(nullptr, 0), 0u);
    }
}

} // namespace
} // namespace kelp::agent
