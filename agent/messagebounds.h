// Where a stream of BER messages (SNMP over TCP: a SEQUENCE each, tag
// 0x30, its length, its content) stands between its messages, so that a
// read of the stream can stop at the end of the message it is in.
//
// net-snmp reads a connection into a buffer as large as it can and answers
// every whole request that read brought before it turns to any other
// manager: a connection that pipelines thousands of requests held the
// others up for as long as those took. Read one message at a time, a
// connection gets one request answered per turn of the main loop, as each
// UDP source does. Free of sockets and net-snmp.
#ifndef KELP_AGENT_MESSAGEBOUNDS_H
#define KELP_AGENT_MESSAGEBOUNDS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace kelp::agent {

class MessageBounds {
  public:
    // The most header bytes a message has: its tag and a length of 0x84
    // and four octets.
    static constexpr size_t kMaxHeader = 6;

    // How many bytes the next read may take so as to end with the message
    // it is in. `ahead` holds the next bytes of the stream (`length` of
    // them, as a peek gave them) when headerToPeek() is not 0. 0 means no
    // bound: the stream is not one of definite-length SEQUENCEs, and its
    // reader judges it as it would without this.
    size_t nextRead(const uint8_t *ahead, size_t length) const
    {
        if (broken_) {
            return 0;
        }
        if (left_ > 0) {
            return left_;
        }
        uint8_t header[kMaxHeader];
        const size_t known = std::min(kMaxHeader, headerLength_ + length);
        std::copy(header_, header_ + headerLength_, header);
        std::copy(ahead, ahead + (known - headerLength_), header + headerLength_);
        size_t size = 0;
        size_t content = 0;
        switch (parse(header, known, &size, &content)) {
        case Header::kBroken:
            return 0;
        case Header::kPart:
            return length; // all of it belongs to the header
        case Header::kWhole:
            break;
        }
        return size - headerLength_ + content;
    }

    // How many bytes to peek before nextRead: 0 while in a message's
    // content or once broken.
    size_t headerToPeek() const { return broken_ || left_ > 0 ? 0 : kMaxHeader - headerLength_; }

    // The read took these bytes of the stream.
    void took(const uint8_t *bytes, size_t length)
    {
        while (length > 0 && !broken_) {
            if (left_ > 0) {
                const size_t step = std::min(left_, length);
                left_ -= step;
                bytes += step;
                length -= step;
                continue;
            }
            header_[headerLength_++] = *bytes++;
            length--;
            size_t size = 0;
            size_t content = 0;
            switch (parse(header_, headerLength_, &size, &content)) {
            case Header::kBroken:
                broken_ = true;
                break;
            case Header::kPart:
                break;
            case Header::kWhole:
                headerLength_ = 0;
                left_ = content;
                break;
            }
        }
    }

    bool broken() const { return broken_; }

  private:
    enum class Header { kPart, kWhole, kBroken };

    // A message's header from its first `length` bytes: whole (its size
    // and the content's length), not all there yet, or not one.
    static Header parse(const uint8_t *bytes, size_t length, size_t *size, size_t *content)
    {
        if (length == 0) {
            return Header::kPart;
        }
        if (bytes[0] != 0x30) {
            return Header::kBroken;
        }
        if (length < 2) {
            return Header::kPart;
        }
        if (bytes[1] < 0x80) {
            *size = 2;
            *content = bytes[1];
            return Header::kWhole;
        }
        const size_t octets = bytes[1] & 0x7f;
        if (octets == 0 || octets > 4) {
            return Header::kBroken; // indefinite, or longer than any message
        }
        if (length < 2 + octets) {
            return Header::kPart;
        }
        size_t value = 0;
        for (size_t i = 0; i < octets; i++) {
            value = value << 8 | bytes[2 + i];
        }
        *size = 2 + octets;
        *content = value;
        return Header::kWhole;
    }

    uint8_t header_[kMaxHeader] = {};
    size_t headerLength_ = 0; // of the header of the message the stream is in
    size_t left_ = 0;         // of its content, once the header is whole
    bool broken_ = false;
};

} // namespace kelp::agent

#endif // KELP_AGENT_MESSAGEBOUNDS_H
