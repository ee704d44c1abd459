// kelpctl: sends one command to the control socket of a running kelp runtime
// (kelpagent, or any host of the plug-in) and prints the answer: output lines
// and "ok" on stdout, an "error: ..." line on stderr. It links
// nothing of the runtime; the word quoting comes from the header-only
// runtime/control/words.h, so the server reads back exactly the words given.
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "control/words.h"
#include "mibpath.h"

namespace {

constexpr int kExitOk = 0, kExitCommandError = 1, kExitUsage = 2;
// A command that replaces a large model may take a while; a server that has
// not answered by then is hung.
constexpr int kAnswerTimeoutMs = 120000;

const char kUsage[] = R"(usage: kelpctl [--control SOCKET] COMMAND [ARGS...]

Sends COMMAND to the control socket of a running kelp runtime and prints its
answer: the output lines and the final "ok" on stdout, or the output lines on
stdout and the final "error: MESSAGE" on stderr. SOCKET defaults to
$KELP_CONTROL, else $XDG_STATE_HOME/kelp/control.sock, else
~/.local/state/kelp/control.sock.

Commands:
  status                               model file, objects per type, readiness,
                                       queued events
  ready on|off                         the data store reports ready or not
  set ID ATTR VALUE                    sets (or adds) one attribute of an object
  add [--no-events] --xml TEXT         adds <object> and <link> elements
  remove [--no-events] ID              removes an object and its links
  load [--no-events] FILE              replaces the whole model (a relative FILE
                                       is taken from kelpctl's directory)
  save FILE                            writes the served model as a model file
                                       that load (or kelpagent --model) serves
                                       the same; the file is replaced as one
                                       step, mode 0644 (a relative FILE is
                                       taken from kelpctl's directory)
  event EVENTID [--object ID] [--parm TEXT]... [--field NAME=VALUE]...
                                       queues an event: EventID, the object's
                                       ObjType, Nexus, ObjStatus, PreviousStatus,
                                       AttributesMask, ControllerName and
                                       VirtualDiskName, Parm01.. from --parm, and
                                       each --field (one named like an element
                                       already there replaces its value)
  event --xml TEXT                     queues an event given as XML
  help                                 lists the commands the server knows
  mib                                  (no socket) prints where kelp's MIB is,
                                       whether net-snmp's MIB path ($MIBDIRS,
                                       else its default) finds it and the
                                       modules it imports, and the -M/-m
                                       options its tools need

add, remove and load change the model and then queue the events a storage
service raises when its configuration changes: 3061 (rescan started), then
3060 (rescan completed). --no-events, anywhere among their words, changes the
model without them. A change that is refused queues nothing. The queue holds
at most 10000 events (16 MiB); an event past that is refused until the plug-in
has read some.

Protocol: one command per connection. kelpctl sends one line of at most 64 KiB
ending in a newline, each argument as a double-quoted word (escapes \" \\ \n
\t). The server answers output lines and then a final "ok" or "error: MESSAGE".

Options:
  --control SOCKET, --control=SOCKET   the control socket to talk to
  --no-events                          before load, add or remove: the same as
                                       after it
  -h, --help                           prints this text

Exit status: 0 for ok (kelpctl prints "ok"), 1 for an error answer, 2 for a
usage error or when the socket cannot be reached.
)";

int usageError(const char *message)
{
    std::fprintf(stderr, "kelpctl: %s\n\n%s", message, kUsage);
    return kExitUsage;
}

std::string envValue(const char *name)
{
    const char *v = std::getenv(name);
    return v != nullptr ? v : "";
}

std::string defaultSocket()
{
    if (std::string control = envValue("KELP_CONTROL"); !control.empty())
        return control;
    // As the agent does: the XDG rules ignore a relative value.
    if (std::string state = envValue("XDG_STATE_HOME"); state.starts_with('/'))
        return state + "/kelp/control.sock";
    std::string home = envValue("HOME");
    if (home.empty()) {
        if (const passwd *pw = getpwuid(getuid()); pw != nullptr && pw->pw_dir != nullptr)
            home = pw->pw_dir;
    }
    return home + "/.local/state/kelp/control.sock";
}

// The server runs in its own directory; a relative file for `load` or
// `save` is meant from here. The file is the word that is not an option
// ("--..."); the server checks the rest. False, with the reason in *error,
// when this directory cannot be named (it was removed): the server would
// take the file from its own.
bool absolutizeFileOperand(std::vector<std::string> *words, std::string *error)
{
    if (words->empty() || ((*words)[0] != "load" && (*words)[0] != "save"))
        return true;
    for (size_t k = 1; k < words->size(); ++k) {
        std::string &word = (*words)[k];
        if (word.empty() || word[0] == '/' || word.starts_with("--"))
            continue;
        char *cwd = getcwd(nullptr, 0);
        if (cwd == nullptr) {
            *error = "cannot tell where " + word + " is: the current directory cannot be named (" +
                     std::strerror(errno) + "); give the file's full path";
            return false;
        }
        word = std::string(cwd) + "/" + word;
        std::free(cwd);
    }
    return true;
}

int connectTo(const std::string &path)
{
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path) {
        std::fprintf(stderr, "kelpctl: cannot reach the control socket %s: path too long\n",
                     path.c_str());
        return -1;
    }
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        std::fprintf(stderr, "kelpctl: cannot reach the control socket %s: %s\n", path.c_str(),
                     std::strerror(errno));
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

// Sends as much of line as the server takes. A server that refuses a line
// closes early; its answer is still waiting to be read, so a failed send is
// not an error by itself.
void sendLine(int fd, const std::string &line)
{
    size_t done = 0;
    while (done < line.size()) {
        ssize_t n = send(fd, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        done += size_t(n);
    }
    shutdown(fd, SHUT_WR);
}

// Everything the server sends until it ends the answer: it shuts its
// sending side down after the final line (or closes). A reset after an
// early answer ends the answer the same way. False on time-out.
bool readAnswer(int fd, std::string *answer)
{
    char chunk[4096];
    while (true) {
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, kAnswerTimeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return true;
        answer->append(chunk, size_t(n));
    }
}

// The directory of this program (from /proc/self/exe); "." when unknown.
std::string programDir()
{
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return ".";
    const std::string path(self, size_t(length));
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

// `kelpctl mib`: answered here, without the control socket. Exit status 1
// when kelp's MIB file is not found.
int printMibPlace()
{
    namespace mib = kelp::mib;
    const std::vector<std::string> kelpDirs = mib::kelpMibDirs(programDir());
    const std::vector<std::string> netsnmpDirs = mib::netsnmpMibDirs(
        std::getenv("MIBDIRS"), std::getenv("HOME"), mib::netsnmpDefaultMibDirs());
    const std::optional<mib::MibPlace> place = mib::findMib(kelpDirs, netsnmpDirs);
    if (!place) {
        std::fprintf(stderr, "kelpctl: %s\n", mib::mibHint(place, kelpDirs, netsnmpDirs).c_str());
        return kExitCommandError;
    }
    std::string searched;
    for (const std::string &dir : netsnmpDirs)
        searched += (searched.empty() ? "" : ":") + dir;
    std::printf("MIB file: %s\n", place->file.c_str());
    std::printf("net-snmp's MIB path: %s\n", searched.c_str());
    if (place->foundIn.empty())
        std::printf("found on that path: no\n");
    else
        std::printf("found on that path: yes, in %s\n", place->foundIn.c_str());
    if (!place->missingImports.empty()) {
        std::string missing;
        for (const std::string &module : place->missingImports)
            missing += (missing.empty() ? "" : " ") + module;
        std::printf("imports in no file of that path: %s (install snmp-mibs-downloader, or add "
                    "a directory that holds %s with -M)\n",
                    missing.c_str(), place->missingImports.size() == 1 ? "it" : "them");
    }
    std::printf("options: %s\n", place->options.c_str());
    std::printf("example: snmpwalk -v2c -c public %s 127.0.0.1:1161 "
                "1.3.6.1.4.1.61234.20571.1.20\n",
                place->options.c_str());
    return kExitOk;
}

} // namespace

int main(int argc, char **argv)
{
    std::string socketPath;
    bool noEvents = false;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            std::fputs(kUsage, stdout);
            return kExitOk;
        }
        if (option == "--control") {
            if (i + 1 == argc)
                return usageError("--control needs a SOCKET");
            socketPath = argv[++i];
        } else if (option.starts_with("--control=")) {
            socketPath = option.substr(10);
        } else if (option == "--no-events") {
            noEvents = true;
        } else {
            return usageError(("unknown option " + option).c_str());
        }
    }
    if (i == argc)
        return usageError("no command given");
    if (socketPath.empty())
        socketPath = defaultSocket();

    std::vector<std::string> words(argv + i, argv + argc);
    if (words[0] == "mib") {
        if (words.size() != 1 || noEvents)
            return usageError("mib takes no arguments");
        return printMibPlace();
    }
    if (noEvents) {
        if (words[0] != "load" && words[0] != "add" && words[0] != "remove")
            return usageError("--no-events goes with load, add and remove only");
        words.push_back("--no-events");
    }
    if (std::string error; !absolutizeFileOperand(&words, &error)) {
        std::fprintf(stderr, "kelpctl: %s\n", error.c_str());
        return kExitCommandError;
    }
    std::string line;
    for (const std::string &word : words) {
        if (!line.empty())
            line += ' ';
        line += kelp::ctl::quoteWord(word);
    }
    line += '\n';

    int fd = connectTo(socketPath);
    if (fd < 0)
        return kExitUsage;
    sendLine(fd, line);
    std::string answer;
    bool answered = readAnswer(fd, &answer);
    close(fd);
    if (!answered) {
        std::fprintf(stderr, "kelpctl: no answer from the control socket %s within %d s\n",
                     socketPath.c_str(), kAnswerTimeoutMs / 1000);
        return kExitUsage;
    }

    // The last complete line is the status; the lines before it are output.
    if (answer.empty() || answer.back() != '\n') {
        std::fprintf(stderr,
                     "kelpctl: the control socket %s closed without a complete answer; the "
                     "command may or may not have run\n",
                     socketPath.c_str());
        return kExitUsage;
    }
    answer.pop_back();
    size_t lastStart = answer.rfind('\n');
    lastStart = lastStart == std::string::npos ? 0 : lastStart + 1;
    std::string status = answer.substr(lastStart);
    std::fwrite(answer.data(), 1, lastStart, stdout);
    if (status == "ok") {
        std::puts("ok");
        return kExitOk;
    }
    if (status.starts_with("error: ")) {
        std::fprintf(stderr, "%s\n", status.c_str());
        // A command the server does not know, or whose arguments it cannot
        // read, is a usage error as much as one found here.
        return status.starts_with("error: usage: ") || status.starts_with("error: unknown command ")
                   ? kExitUsage
                   : kExitCommandError;
    }
    std::fprintf(stderr, "kelpctl: unexpected answer from the control socket %s: %s\n",
                 socketPath.c_str(), status.c_str());
    return kExitUsage;
}
