// The control socket's protocol (runtime/control) on a small served model:
//  - each line of the input as one command line (answerLine: split into
//    words, checked, run, answered), every answer printable and ending in
//    "ok" or "error: ...";
//  - the whole input as the bytes one client sends, written to a
//    Connection over a socket pair in pieces split at varying places, the
//    answer read as the client would.
// save and load name files: run as lines, their files are taken inside the
// target's own temporary directory; a client's bytes that mention either
// command are not sent as a connection.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>

#include "control/commands.h"
#include "control/connection.h"
#include "datastore/model_store.h"
#include "eventif/event_queue.h"
#include "fuzz_common.h"

namespace {

constexpr char kModel[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<storage ready="1" thermalShutdown="0" chassisServiceTag="T1" baseBoardServiceTag="T2">
  <object id="1" type="adapters"><Nexus>0</Nexus><Name>Vorn RX-240</Name><ObjStatus>2</ObjStatus></object>
  <object id="2" type="bus" parent="1"><Nexus>0\0</Nexus></object>
  <object id="20" type="arraydisks" parent="2"><Nexus>0\0\20</Nexus><ObjStatus>2</ObjStatus></object>
  <object id="40" type="vdisks" parent="1"><Nexus>v40</Nexus><Name>Data &amp; logs</Name></object>
  <object id="90" type="enclosures"><Nexus>9</Nexus></object>
  <link a="20" b="40"/>
</storage>
)";

// The answer to one command line. save and load name files: their file is
// taken inside the target's temporary directory, under its last name.
std::string answerOf(std::string_view line)
{
    kelp::ctl::Request request;
    std::string error;
    if (!kelp::ctl::prepareLine(line, &request, &error)) {
        return kelp::ctl::answerLine(line);
    }
    const std::string_view name = request.command->name;
    if (name != "save" && name != "load") {
        return kelp::ctl::answerLine(line);
    }
    request.text = fuzzcommon::tempDir() + "/" + request.text.substr(request.text.rfind('/') + 1);
    return kelp::ctl::formatReply(kelp::ctl::runCommand(request));
}

void checkAnswer(const std::string &answer)
{
    FUZZ_CHECK(!answer.empty() && answer.back() == '\n');
    const size_t last = answer.rfind('\n', answer.size() - 2);
    const std::string_view end =
        std::string_view(answer).substr(last == std::string::npos ? 0 : last + 1);
    FUZZ_CHECK(end == "ok\n" || end.starts_with("error: "));
    // Every other control byte is shown escaped; a tab stays (a value may
    // hold one) and keeps the answer one line.
    for (char c : answer) {
        FUZZ_CHECK(c == '\n' || c == '\t' || static_cast<unsigned char>(c) >= 0x20);
    }
}

bool mentionsFiles(std::string_view bytes)
{
    std::string lower(bytes);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower.find("save") != std::string::npos || lower.find("load") != std::string::npos;
}

// One client sending `bytes` in pieces of varying size, then closing its
// sending side, and reading the answer.
void asClient(std::string_view bytes)
{
    int pair[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0);
    using Clock = kelp::ctl::Connection::Clock;
    kelp::ctl::Connection connection(kelp::rt::UniqueFd(pair[0]), std::chrono::seconds(5),
                                     Clock::now());
    const int client = pair[1];
    size_t sent = 0;
    unsigned piece = 1;
    std::string answer;
    bool closedSending = false;
    for (int round = 0; round < 10000; round++) {
        if (sent < bytes.size()) {
            // Pieces of 1, 2, 4, ... bytes, then from 1 again.
            const size_t length = std::min<size_t>(piece, bytes.size() - sent);
            const ssize_t n = write(client, bytes.data() + sent, length);
            if (n > 0) {
                sent += static_cast<size_t>(n);
            }
            piece = piece >= 64 ? 1 : piece * 2;
        } else if (!closedSending) {
            shutdown(client, SHUT_WR);
            closedSending = true;
        }
        pollfd fd{connection.fd(), static_cast<short>(connection.events() | POLLIN), 0};
        poll(&fd, 1, 0);
        if (!connection.advance(fd.revents, Clock::now())) {
            break;
        }
        char buffer[4096];
        ssize_t n;
        while ((n = read(client, buffer, sizeof buffer)) > 0) {
            answer.append(buffer, static_cast<size_t>(n));
        }
    }
    char buffer[4096];
    ssize_t n;
    while ((n = read(client, buffer, sizeof buffer)) > 0) {
        answer.append(buffer, static_cast<size_t>(n));
    }
    close(client);
    if (!answer.empty()) {
        checkAnswer(answer);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    const std::string dir = fuzzcommon::tempDir();
    std::ofstream(dir + "/model.xml") << kModel;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    std::string error;
    FUZZ_CHECK(kelp::ds::loadModelText(kModel, "fuzz-model", &error));
    kelp::ev::clearEvents();
    std::string_view rest = input;
    for (int lines = 0; lines < 32 && !rest.empty(); lines++) {
        const size_t end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        checkAnswer(answerOf(line));
    }
    if (!mentionsFiles(input)) {
        asClient(input);
    }
    kelp::ds::unloadModel();
    kelp::ev::clearEvents();
    return 0;
}
