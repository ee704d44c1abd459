// Helpers of the control socket tests: a temporary directory, a small model,
// a raw client that sends bytes and reads the whole answer, and the served
// model's answers read back through the data-store queries.
#ifndef KELP_RUNTIME_CONTROL_CONTROL_TESTING_H
#define KELP_RUNTIME_CONTROL_CONTROL_TESTING_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "vscil.h"

namespace kelp::ctl::testing {

// A small model: an adapter with a channel and a disk, a virtual disk on
// the disk, and a second, controller-less enclosure.
inline constexpr char kModel[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<storage ready="1" thermalShutdown="0" chassisServiceTag="T1" baseBoardServiceTag="T2">
  <object id="1" type="adapters">
    <Nexus>0</Nexus>
    <Name>Vorn RX-240</Name>
    <ObjStatus>2</ObjStatus>
  </object>
  <object id="2" type="bus" parent="1"><Nexus>0\0</Nexus></object>
  <object id="20" type="arraydisks" parent="2">
    <Nexus>0\0\20</Nexus><ObjStatus>2</ObjStatus><PreviousStatus>1</PreviousStatus>
    <AttributesMask>0101</AttributesMask>
  </object>
  <object id="40" type="vdisks" parent="1"><Nexus>v40</Nexus><Name>Data &amp; logs</Name></object>
  <object id="90" type="enclosures"><Nexus>9</Nexus></object>
  <link a="20" b="40"/>
</storage>
)";

// A directory under the test's temporary directory, removed at the end.
// Kept short: a socket path must fit 107 bytes.
class TempDir {
  public:
    TempDir()
    {
        std::string pattern = "/tmp/kelpctl_XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
            ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        path_ = pattern;
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    void write(const std::string &name, const std::string &text) const
    {
        std::ofstream(file(name), std::ios::binary) << text;
    }

  private:
    std::string path_;
};

// Connects to the socket at path; -1 (with a test failure) when it cannot.
inline int connectTo(const std::string &path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0)
        return fd;
    ADD_FAILURE() << "cannot connect to " << path << ": " << std::strerror(errno);
    if (fd >= 0)
        close(fd);
    return -1;
}

// Everything the server sends until it closes (a reset after the answer
// ends it too), or what came before the limit (a generous one by default).
inline std::string readAll(int fd, std::chrono::milliseconds limit = std::chrono::seconds(30))
{
    std::string answer;
    char chunk[4096];
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0)
            return answer;
        answer.append(chunk, size_t(n));
    }
    ADD_FAILURE() << "no end of answer within " << limit.count() << " ms";
    return answer;
}

// Sends bytes as they are, shuts the sending side down when asked, and
// answers what the server sent back within the limit.
inline std::string sendAndRead(const std::string &path, const std::string &bytes,
                               bool shutDownSending = true,
                               std::chrono::milliseconds limit = std::chrono::seconds(30))
{
    int fd = connectTo(path);
    if (fd < 0)
        return "";
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0)
            break; // a server that refused the line early has closed
        done += size_t(n);
    }
    if (shutDownSending)
        shutdown(fd, SHUT_WR);
    std::string answer = readAll(fd, limit);
    close(fd);
    return answer;
}

// One command line, answered.
inline std::string ask(const std::string &path, const std::string &line)
{
    return sendAndRead(path, line + "\n");
}

// One command line, answered within limit.
inline std::string askWithin(const std::string &path, const std::string &line,
                             std::chrono::milliseconds limit)
{
    return sendAndRead(path, line + "\n", true, limit);
}

// GetSingleObject's answer for id, or "<status N>" when there is none.
inline std::string singleObject(uint32_t id)
{
    uint32_t status = 99;
    char *xml = GetSingleObject(&status, 0, id);
    std::string text =
        xml != nullptr ? std::string(xml) : "<status " + std::to_string(status) + ">";
    freeMem(xml);
    return text;
}

// DataStoreReady's answer, or "<null>".
inline std::string readyAnswer()
{
    uint32_t status = 99;
    char *xml = DataStoreReady(&status);
    std::string text = xml != nullptr ? std::string(xml) : "<null>";
    freeMem(xml);
    return text;
}

} // namespace kelp::ctl::testing

#endif // KELP_RUNTIME_CONTROL_CONTROL_TESTING_H
