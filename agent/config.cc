// The configuration file: lines checked one by one, each setting applied to
// a scratch Options so that a bad value is reported with its line, and the
// merge with the command line.
#include "config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <optional>
#include <system_error>

namespace kelp::agent {
namespace {

constexpr std::string_view kBlanks = " \t";

// Options that only make sense on a command line: a file naming another
// file, or asking for help, is a mistake worth reporting.
constexpr std::string_view kCommandLineOnly[] = {"config", "help", "version"};

// Options that choose the same thing in different ways: the first named on
// the command line sets the file's second aside too, so that a file serving
// the live storage gives way to --model, and the other way round.
constexpr std::pair<std::string_view, std::string_view> kSetsAside[] = {
    {"model", "live"},
    {"model", "live-root"},
    {"live", "model"},
    {"live-root", "model"},
};

// True when the command line (`given`) names `key` or an option that sets it
// aside.
bool commandLineOverrides(const std::vector<std::string> &given, std::string_view key)
{
    for (const std::string &name : given) {
        if (name == key ||
            std::ranges::find(kSetsAside, std::pair<std::string_view, std::string_view>(
                                              name, key)) != std::end(kSetsAside)) {
            return true;
        }
    }
    return false;
}

std::optional<OptionShape> findShape(std::string_view key)
{
    for (const OptionShape &shape : optionShapes()) {
        if (shape.name == key) {
            return shape;
        }
    }
    return std::nullopt;
}

std::string quoted(std::string_view text)
{
    return "'" + std::string(text) + "'";
}

// The reason `line` cannot be a line of the file, or empty.
std::string lineFault(std::string_view line)
{
    if (line.size() > kMaxConfigLine) {
        return "line longer than " + std::to_string(kMaxConfigLine) + " bytes";
    }
    for (const char c : line) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == 0) {
            return "NUL byte";
        }
        if (byte == '\r') {
            return "carriage return (a DOS line end?)";
        }
        if ((byte < 0x20 && byte != '\t') || byte == 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "0x%02x", byte);
            return std::string("control character ") + hex;
        }
    }
    return {};
}

// Why `key` is not a key of the file, with a hint for the usual slips.
std::string unknownKey(std::string_view key)
{
    std::string message = "unknown key " + quoted(key);
    if (key.starts_with("--") && findShape(key.substr(2))) {
        message += " (keys are written without dashes)";
    } else if (const size_t equals = key.find('=');
               equals != std::string_view::npos && findShape(key.substr(0, equals))) {
        message += " (write " + quoted(std::string(key.substr(0, equals)) + " VALUE") + ")";
    }
    return message;
}

// Checks one setting's value as the command line would; on success
// *setting holds what applyOption takes, and *keep is false for a flag set
// to "no".
std::string valueFault(const OptionShape &shape, ConfigSetting *setting, bool *keep)
{
    *keep = true;
    if (shape.arg == OptionArg::kNone) {
        if (setting->value == "no") {
            *keep = false;
        } else if (!setting->value.empty() && setting->value != "yes") {
            return quoted(setting->key) + " takes yes, no or nothing, not " +
                   quoted(setting->value);
        }
        setting->value.clear();
        return {};
    }
    if (shape.arg == OptionArg::kRequired && setting->value.empty()) {
        return quoted(setting->key) + " needs a value (" + std::string(shape.valueName) + ")";
    }
    Options scratch;
    std::string why;
    if (!applyOption(setting->key, setting->value, &scratch, &why)) {
        return "bad value for " + quoted(setting->key) + ": " + why;
    }
    return {};
}

} // namespace

bool parseConfig(std::string_view text, const std::string &file,
                 std::vector<ConfigSetting> *settings, std::string *error)
{
    std::vector<ConfigSetting> parsed;
    std::map<std::string, int, std::less<>> firstLine;
    // Some editors begin a UTF-8 file with a byte order mark.
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(kByteOrderMark))
        text.remove_prefix(kByteOrderMark.size());
    int number = 0;
    while (!text.empty()) {
        number++;
        const size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        const auto fail = [&](const std::string &what) {
            *error = file + ":" + std::to_string(number) + ": " + what;
            return false;
        };
        if (const std::string fault = lineFault(line); !fault.empty()) {
            return fail(fault);
        }
        const size_t first = line.find_first_not_of(kBlanks);
        if (first == std::string_view::npos || line[first] == '#') {
            continue;
        }
        line = line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
        const size_t blank = line.find_first_of(kBlanks);
        ConfigSetting setting;
        setting.key = std::string(line.substr(0, blank));
        if (blank != std::string_view::npos) {
            setting.value = std::string(line.substr(line.find_first_not_of(kBlanks, blank)));
        }
        setting.line = number;

        const std::optional<OptionShape> shape = findShape(setting.key);
        if (std::ranges::find(kCommandLineOnly, setting.key) != std::end(kCommandLineOnly)) {
            return fail("key " + quoted(setting.key) + " belongs on the command line only");
        }
        if (!shape) {
            return fail(unknownKey(setting.key));
        }
        if (!shape->repeatable) {
            const auto [seen, fresh] = firstLine.try_emplace(setting.key, number);
            if (!fresh) {
                return fail("duplicate key " + quoted(setting.key) + " (first on line " +
                            std::to_string(seen->second) + ")");
            }
        }
        bool keep = true;
        if (const std::string fault = valueFault(*shape, &setting, &keep); !fault.empty()) {
            return fail(fault);
        }
        if (keep) {
            parsed.push_back(std::move(setting));
        }
    }
    *settings = std::move(parsed);
    return true;
}

bool readConfig(const std::string &path, bool mustExist, std::vector<ConfigSetting> *settings,
                std::string *error, bool *found)
{
    if (found != nullptr) {
        *found = false;
    }
    // O_NONBLOCK: a FIFO opens at once instead of waiting for a writer, and
    // is refused below.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        if (!mustExist && (errno == ENOENT || errno == ENOTDIR)) {
            settings->clear();
            return true;
        }
        *error = path + ": cannot open: " + std::generic_category().message(errno);
        return false;
    }
    if (struct stat st{}; fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode)) {
        close(fd);
        *error = path + ": a FIFO, not a file";
        return false;
    }
    std::string text;
    char buffer[8192];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            *error = path + ": cannot read: " + std::generic_category().message(errno);
            close(fd);
            return false;
        }
        if (got == 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(got));
        if (text.size() > kMaxConfigFile) {
            *error = path + ": larger than " + std::to_string(kMaxConfigFile) + " bytes";
            close(fd);
            return false;
        }
    }
    close(fd);
    if (found != nullptr) {
        *found = true;
    }
    return parseConfig(text, path, settings, error);
}

bool applyConfigFile(const std::string &defaultFile, int argc, const char *const *argv,
                     Options *options, std::string *error)
{
    const bool named = !options->config.empty();
    const std::string path = named ? options->config : defaultFile;
    if (path.empty()) {
        return true;
    }
    std::vector<ConfigSetting> settings;
    bool found = false;
    if (!readConfig(path, named, &settings, error, &found)) {
        return false;
    }
    Options commandLine;
    std::vector<std::string> given;
    if (!parseOptions(argc, argv, &commandLine, error, &given)) {
        return false;
    }
    Options merged;
    for (const ConfigSetting &setting : settings) {
        // parseConfig applied each setting once already: this cannot fail.
        if (!commandLineOverrides(given, setting.key) &&
            !applyOption(setting.key, setting.value, &merged, error)) {
            *error = path + ":" + std::to_string(setting.line) + ": " + *error;
            return false;
        }
    }
    if (!parseOptions(argc, argv, &merged, error)) {
        return false;
    }
    merged.config = found ? path : std::string();
    *options = std::move(merged);
    return true;
}

} // namespace kelp::agent
