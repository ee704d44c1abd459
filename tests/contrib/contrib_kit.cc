// The contrib tests' shared helpers.
#include "contrib_kit.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace kelp::test {

std::string contribPath(const std::string &relative)
{
    return sourcePath("contrib/" + relative);
}

std::vector<std::string> mibEnv(const TempDir &dir)
{
    std::vector<std::string> env = snmpEnv(dir);
    for (std::string &entry : env) {
        if (entry.starts_with("MIBS=")) {
            entry = "MIBS=KELP-STORAGE-MIB";
        }
    }
    env.push_back("MIBDIRS=" + sourcePath("mibs") + ":" + sourcePath("tests/mibs"));
    return env;
}

bool executable(const std::string &path)
{
    return access(path.c_str(), X_OK) == 0;
}

namespace {

// Closes a descriptor when the scope ends.
struct Descriptor {
    int fd;
    ~Descriptor()
    {
        if (fd >= 0) {
            close(fd);
        }
    }
};

// True when `fd` becomes ready for `events` before `end`.
bool ready(int fd, short events, std::chrono::steady_clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return false;
    }
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, static_cast<int>(left.count())) == 1;
}

} // namespace

HttpAnswer httpGet(int port, const std::string &target, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    HttpAnswer answer;
    Descriptor sock{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (sock.fd < 0 || connect(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        return answer;
    }
    const std::string request = "GET " + target + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    if (write(sock.fd, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
        return answer;
    }
    std::string raw;
    char buffer[65536];
    for (;;) {
        if (!ready(sock.fd, POLLIN, end)) {
            return answer;
        }
        const ssize_t got = read(sock.fd, buffer, sizeof buffer);
        if (got < 0) {
            return answer;
        }
        if (got == 0) {
            break;
        }
        raw.append(buffer, static_cast<size_t>(got));
    }
    // "HTTP/1.x NNN reason", headers, a blank line, the body.
    const size_t headEnd = raw.find("\r\n\r\n");
    if (!raw.starts_with("HTTP/1.") || raw.size() < 12 || headEnd == std::string::npos) {
        return answer;
    }
    answer.status = std::atoi(raw.substr(9, 3).c_str());
    answer.body = raw.substr(headEnd + 4);
    return answer;
}

namespace {

// Reads a label value in double quotes starting at text[*at] (the opening
// quote), with the format's escapes \\, \" and \n. False when unterminated.
bool readQuoted(const std::string &text, size_t *at, std::string *value)
{
    for (size_t i = *at + 1; i < text.size(); i++) {
        if (text[i] == '"') {
            *at = i + 1;
            return true;
        }
        if (text[i] == '\\' && i + 1 < text.size()) {
            i++;
            value->push_back(text[i] == 'n' ? '\n' : text[i]);
        } else {
            value->push_back(text[i]);
        }
    }
    return false;
}

// One sample line: name, optional {k="v",...}, a blank, the value.
bool parseSample(const std::string &line, Series *series)
{
    size_t at = line.find_first_of("{ ");
    if (at == std::string::npos || at == 0) {
        return false;
    }
    series->name = line.substr(0, at);
    if (line[at] == '{') {
        at++;
        while (at < line.size() && line[at] != '}') {
            const size_t equals = line.find('=', at);
            if (equals == std::string::npos || equals + 1 >= line.size() ||
                line[equals + 1] != '"') {
                return false;
            }
            const std::string key = line.substr(at, equals - at);
            std::string value;
            at = equals + 1;
            if (!readQuoted(line, &at, &value)) {
                return false;
            }
            series->labels[key] = value;
            if (at < line.size() && line[at] == ',') {
                at++;
            }
        }
        if (at >= line.size()) {
            return false;
        }
        at++;
    }
    if (at >= line.size() || line[at] != ' ') {
        return false;
    }
    const std::string number = line.substr(at + 1);
    char *end = nullptr;
    series->value = std::strtod(number.c_str(), &end);
    return !number.empty() && end != nullptr && (*end == '\0' || *end == ' ');
}

} // namespace

std::optional<std::vector<Series>> parseExposition(const std::string &text, std::string *bad)
{
    std::vector<Series> all;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line.starts_with("#")) {
            continue;
        }
        Series series;
        if (!parseSample(line, &series)) {
            *bad = line;
            return std::nullopt;
        }
        all.push_back(std::move(series));
    }
    return all;
}

std::vector<Series> select(const std::vector<Series> &all, const std::string &name,
                           const std::map<std::string, std::string> &labels)
{
    std::vector<Series> chosen;
    for (const Series &series : all) {
        bool match = series.name == name;
        for (const auto &[key, value] : labels) {
            const auto found = series.labels.find(key);
            match = match && found != series.labels.end() && found->second == value;
        }
        if (match) {
            chosen.push_back(series);
        }
    }
    return chosen;
}

std::vector<std::vector<std::string>> failDisk(const std::string &id, const std::string &vdisk,
                                               const std::string &enclosure,
                                               const std::string &controller)
{
    // ObjState 2 is failed, 32 degraded; ObjStatus and TreeStatus 4 are
    // critical and 3 non-critical (the model's conventions, docs/LIVE.md).
    return {
        {"set", id, "ObjState", "2"},          {"set", id, "ObjStatus", "4"},
        {"set", id, "TreeStatus", "4"},        {"set", vdisk, "ObjState", "32"},
        {"set", vdisk, "ObjStatus", "3"},      {"set", vdisk, "TreeStatus", "3"},
        {"set", enclosure, "TreeStatus", "4"}, {"set", controller, "TreeStatus", "4"},
    };
}

} // namespace kelp::test
