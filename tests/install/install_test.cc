// kelp installed into a staging root (cmake --install --prefix /usr with
// DESTDIR): every file in its place, the programs finding their libraries
// through their RPATH alone and the agent finding plug-in, model and MIB
// from where it was installed, and the systemd unit as installed passing
// systemd-analyze verify.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "testkit.h"

namespace kelp::test {
namespace {

namespace fs = std::filesystem;

// The staging root, installed once for all tests of this file.
class Installed : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        dir_ = new TempDir;
        root_ = new std::string(*dir_ / "root");
        const RunResult install =
            run({CMAKE_COMMAND, "--install", KELP_BUILD_DIR, "--prefix", "/usr"},
                {"DESTDIR=" + *root_}, *dir_, 60s);
        installLog_ = new std::string(install.out + install.err);
        installed_ = install.status == 0;
    }
    static void TearDownTestSuite()
    {
        delete dir_;
        delete root_;
        delete installLog_;
    }
    void SetUp() override { ASSERT_TRUE(installed_) << *installLog_; }

    static std::string at(const std::string &relative) { return *root_ + "/" + relative; }
    // A program of the staging root, run with no LD_LIBRARY_PATH and no
    // MIBDIRS from the test's environment.
    static std::vector<std::string> clean(const std::string &program,
                                          const std::vector<std::string> &args)
    {
        std::vector<std::string> argv = {"/usr/bin/env", "-u",      "LD_LIBRARY_PATH",
                                         "-u",           "MIBDIRS", at(program)};
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }
    // The installed MIB file; a stand-in (made here) while the source tree
    // has none.
    static std::string mibFile()
    {
        const std::string file = at("usr/share/snmp/mibs/KELP-STORAGE-MIB.txt");
        if (!fs::exists(KELP_SOURCE_DIR "/mibs/KELP-STORAGE-MIB.txt") && !fs::exists(file)) {
            fs::create_directories(fs::path(file).parent_path());
            writeFile(file, "KELP-STORAGE-MIB DEFINITIONS ::= BEGIN\nEND\n");
        }
        return file;
    }

    static TempDir *dir_;
    static std::string *root_;
    static std::string *installLog_;
    static bool installed_;
};

TempDir *Installed::dir_ = nullptr;
std::string *Installed::root_ = nullptr;
std::string *Installed::installLog_ = nullptr;
bool Installed::installed_ = false;

TEST_F(Installed, PutsEveryFileInItsPlace)
{
    const char *files[] = {
        "usr/sbin/kelpagent",
        "usr/bin/kelpctl",
        "usr/bin/kelpgen",
        "usr/lib/kelp/libkelpimp64.so",
        "usr/lib/kelp/libkelpruntime.so",
        "usr/share/kelp/models/sample.xml",
        "usr/share/kelp/alerts.txt",
        "etc/kelp/kelpagent.conf",
        "usr/lib/systemd/system/kelpagent.service",
        "usr/lib/sysusers.d/kelp.conf",
    };
    for (const char *file : files) {
        EXPECT_TRUE(fs::is_regular_file(at(file))) << file;
    }
    for (const char *program : {"usr/sbin/kelpagent", "usr/bin/kelpctl", "usr/bin/kelpgen"}) {
        EXPECT_NE(fs::status(at(program)).permissions() & fs::perms::owner_exec, fs::perms::none)
            << program;
    }
    // Whatever MIB modules and manual pages the source tree has.
    if (fs::is_directory(KELP_SOURCE_DIR "/mibs")) {
        for (const auto &mib : fs::directory_iterator(KELP_SOURCE_DIR "/mibs")) {
            if (mib.path().extension() == ".txt") {
                EXPECT_TRUE(fs::exists(at("usr/share/snmp/mibs/" + mib.path().filename().string())))
                    << mib.path();
            }
        }
    }
    if (fs::is_directory(KELP_SOURCE_DIR "/docs/man")) {
        for (const auto &page : fs::directory_iterator(KELP_SOURCE_DIR "/docs/man")) {
            const std::string section = page.path().extension().string();
            if (section.size() == 2 && section[1] >= '1' && section[1] <= '8') {
                // Compressed, as Debian's policy asks.
                const std::string installed = at("usr/share/man/man" + section.substr(1) + "/" +
                                                 page.path().filename().string() + ".gz");
                EXPECT_EQ(run({"gzip", "-dc", installed}, {}, *dir_).out,
                          readFile(page.path().string()))
                    << page.path();
            }
        }
    }
}

TEST_F(Installed, TheConfigurationShowsTheDefaultsAllCommentedOut)
{
    const std::string conf = readFile(at("etc/kelp/kelpagent.conf"));
    // Every option of the agent (but those of the command line only) is
    // shown as a key, so that an option added later is added here too.
    const RunResult help = run(clean("usr/sbin/kelpagent", {"--help"}), {}, *dir_);
    ASSERT_EQ(help.status, 0) << help.err;
    size_t keys = 0;
    for (size_t at = help.out.find("\n  --"); at != std::string::npos;
         at = help.out.find("\n  --", at + 1)) {
        const size_t start = at + 5;
        const size_t end = help.out.find_first_of(" ,=:\n", start);
        const std::string key = help.out.substr(start, end - start);
        if (key == "config" || key == "help" || key == "version")
            continue;
        ++keys;
        EXPECT_TRUE(conf.find("\n#" + key + " ") != std::string::npos ||
                    conf.find("\n#" + key + "\n") != std::string::npos)
            << "the configuration does not show the key " << key;
    }
    EXPECT_GT(keys, 20u) << help.out;
    for (const char *line : {"#listen udp:127.0.0.1:1161\n", "#community public\n",
                             "#trap-version 2c\n", "#state-dir /var/lib/kelp\n"}) {
        EXPECT_NE(conf.find(line), std::string::npos) << line;
    }
    size_t start = 0;
    while (start < conf.size()) {
        const size_t end = conf.find('\n', start);
        const std::string line = conf.substr(start, end - start);
        EXPECT_TRUE(line.empty() || line[0] == '#') << "an active line: " << line;
        start = end == std::string::npos ? conf.size() : end + 1;
    }
}

TEST_F(Installed, ProgramsFindTheirLibrariesThroughOriginRelativeRpaths)
{
    struct Case {
        const char *file, *rpath;
    } cases[] = {
        {"usr/sbin/kelpagent", "[$ORIGIN/../lib/kelp]"},
        {"usr/lib/kelp/libkelpimp64.so", "[$ORIGIN]"},
        {"usr/lib/kelp/libkelpruntime.so", "[$ORIGIN]"},
    };
    for (const Case &c : cases) {
        const RunResult dynamic = run({"/usr/bin/readelf", "-d", at(c.file)}, {}, *dir_);
        ASSERT_EQ(dynamic.status, 0) << dynamic.err;
        EXPECT_NE(dynamic.out.find(c.rpath), std::string::npos) << c.file << "\n" << dynamic.out;
        EXPECT_EQ(dynamic.out.find(KELP_BUILD_DIR), std::string::npos)
            << c.file << " still names the build tree\n"
            << dynamic.out;
    }
    const RunResult version = run(clean("usr/sbin/kelpagent", {"--version"}), {}, *dir_);
    EXPECT_EQ(version.status, 0) << version.err;
    EXPECT_EQ(version.out.rfind("kelpagent ", 0), 0u) << version.out;
}

TEST_F(Installed, TheInstalledAgentServesTheInstalledSampleAndNamesTheMib)
{
    const std::string mib = mibFile();
    const int port = freeUdpPort();
    std::vector<std::string> env = agentEnv();
    Process agent(
        clean("usr/sbin/kelpagent", {"--allow-root", "--state-dir", *dir_ / "state", "--listen",
                                     "udp:127.0.0.1:" + std::to_string(port)}),
        env, *dir_ / "agent.out", *dir_ / "agent.err");
    std::string answer;
    const bool answered = waitFor(
        [&] {
            if (!agent.running())
                return true;
            answer =
                snmp(*dir_, "snmpget", "2c", "public", port, {std::string(kRoot) + ".3.0"}).out;
            return answer.find("Vorn Inc.") != std::string::npos;
        },
        20s);
    ASSERT_TRUE(answered && agent.running()) << answer << agent.err();

    const std::string log = agent.err();
    // The model and the plug-in the log names are those of the staging root.
    EXPECT_NE(log.find(*root_ + "/usr/sbin/../share/kelp/models/sample.xml"), std::string::npos)
        << log;
    EXPECT_NE(log.find(*root_ + "/usr/sbin/../lib/kelp/libkelpimp64.so"), std::string::npos) << log;
    const std::string mibDir = fs::canonical(fs::path(mib).parent_path()).string();
    EXPECT_NE(log.find("the MIB " + mibDir + "/KELP-STORAGE-MIB.txt is not on net-snmp's MIB path"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("-M +" + mibDir + " -m +KELP-STORAGE-MIB"), std::string::npos) << log;

    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait(15s), std::optional<int>(0)) << agent.err();
}

TEST_F(Installed, KelpctlMibPrintsTheOptionsNetsnmpNeeds)
{
    const std::string mibDir = fs::canonical(fs::path(mibFile()).parent_path()).string();
    const RunResult missed = run(clean("usr/bin/kelpctl", {"mib"}), {}, *dir_);
    ASSERT_EQ(missed.status, 0) << missed.err;
    EXPECT_NE(missed.out.find("MIB file: " + mibDir + "/KELP-STORAGE-MIB.txt\n"), std::string::npos)
        << missed.out;
    EXPECT_NE(missed.out.find("found on that path: no\n"), std::string::npos) << missed.out;
    EXPECT_NE(missed.out.find("options: -M +" + mibDir + " -m +KELP-STORAGE-MIB\n"),
              std::string::npos)
        << missed.out;

    // With the dir on net-snmp's path (MIBDIRS, as its tools read it).
    std::vector<std::string> argv = {"/usr/bin/env",        "-u",
                                     "LD_LIBRARY_PATH",     "MIBDIRS=+" + mibDir,
                                     at("usr/bin/kelpctl"), "mib"};
    const RunResult found = run(argv, {}, *dir_);
    ASSERT_EQ(found.status, 0) << found.err;
    EXPECT_NE(found.out.find("found on that path: yes, in " + mibDir + "\n"), std::string::npos)
        << found.out;
    EXPECT_NE(found.out.find("options: -m +KELP-STORAGE-MIB\n"), std::string::npos) << found.out;

    // Without the modules it imports on the path, it says so; with them, not.
    argv[3] = "MIBDIRS=" + mibDir;
    const RunResult bare = run(argv, {}, *dir_);
    EXPECT_NE(bare.out.find("imports in no file of that path: SNMPv2-SMI SNMPv2-TC SNMPv2-CONF"),
              std::string::npos)
        << bare.out;
    argv[3] = "MIBDIRS=" + mibDir + ":" KELP_SOURCE_DIR "/tests/mibs";
    const RunResult whole = run(argv, {}, *dir_);
    EXPECT_EQ(whole.out.find("imports in no file"), std::string::npos) << whole.out;

    const RunResult extra = run(clean("usr/bin/kelpctl", {"mib", "extra"}), {}, *dir_);
    EXPECT_EQ(extra.status, 2) << extra.out;
}

// The unit as installed, its ExecStart pointed at the staged binary (verify
// checks that the program exists and is executable).
TEST_F(Installed, TheUnitPassesSystemdAnalyzeVerify)
{
    const std::string unit = readFile(at("usr/lib/systemd/system/kelpagent.service"));
    const char *lines[] = {
        "Type=notify\n",
        "User=kelp\n",
        "ExecStart=/usr/sbin/kelpagent --state-dir ${STATE_DIRECTORY}\n",
        "ExecReload=/bin/kill -HUP $MAINPID\n",
        "StateDirectory=kelp\n",
        "ConfigurationDirectory=kelp\n",
        "NoNewPrivileges=yes\n",
        "ProtectSystem=strict\n",
        "ProtectHome=yes\n",
        "PrivateTmp=yes\n",
        "ProtectKernelTunables=yes\n",
        "RestrictAddressFamilies=AF_UNIX AF_INET AF_INET6 AF_NETLINK\n",
        "SystemCallFilter=@system-service\n",
    };
    for (const char *line : lines) {
        EXPECT_NE(unit.find(line), std::string::npos) << line;
    }
    if (!fs::exists("/usr/bin/systemd-analyze")) {
        GTEST_SKIP() << "systemd-analyze is not installed";
    }
    const auto verify = [&](const std::string &agentPath, const std::string &name) {
        std::string copy = unit;
        const std::string from = "ExecStart=/usr/sbin/kelpagent";
        copy.replace(copy.find(from), from.size(), "ExecStart=" + agentPath);
        fs::create_directories(*dir_ / name);
        const std::string file = *dir_ / (name + "/kelpagent.service");
        writeFile(file, copy);
        return run({"/usr/bin/systemd-analyze", "verify", "--man=no", file}, {}, *dir_, 60s);
    };
    const RunResult good = verify(at("usr/sbin/kelpagent"), "good");
    EXPECT_EQ(good.status, 0) << good.out << good.err;
    // Any complaint (an unknown key is only a warning) fails the unit.
    EXPECT_EQ(good.out + good.err, "");
    const RunResult bad = verify(*dir_ / "missing/kelpagent", "bad");
    EXPECT_NE(bad.status, 0) << "verify must notice a missing program";
}

// The configuration goes where GNUInstallDirs puts a prefix's etc, which is
// where a build configured for that prefix reads it: /etc for /usr,
// /etc/opt/NAME for /opt/NAME, <prefix>/etc otherwise.
TEST(InstalledElsewhere, TheConfigurationGoesToThePrefixsEtc)
{
    TempDir dir;
    const std::pair<const char *, const char *> cases[] = {
        {"/usr", "/etc/kelp/kelpagent.conf"},
        {"/opt/kelp", "/etc/opt/kelp/kelp/kelpagent.conf"},
        {"/usr/local", "/usr/local/etc/kelp/kelpagent.conf"},
    };
    int n = 0;
    for (const auto &[prefix, conf] : cases) {
        const std::string root = dir / ("root" + std::to_string(n++));
        const RunResult install =
            run({CMAKE_COMMAND, "--install", KELP_BUILD_DIR, "--prefix", prefix},
                {"DESTDIR=" + root}, dir, 60s);
        ASSERT_EQ(install.status, 0) << install.out << install.err;
        EXPECT_TRUE(fs::is_regular_file(root + conf)) << prefix << ": " << install.out;
        fs::remove_all(root);
    }
}

// Installs of one build to one prefix, each into its own staging root, run at
// once (as the tests and packaging jobs do): each completes, with its own
// unit naming the agent where it put it.
TEST(InstalledAtOnce, EveryInstallToTheSamePrefixSucceeds)
{
    TempDir dir;
    constexpr std::size_t kInstalls = 6;
    constexpr int kRounds = 12;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<std::string> roots;
        for (std::size_t i = 0; i < kInstalls; ++i)
            roots.push_back(dir / ("r" + std::to_string(round) + "-" + std::to_string(i)));
        std::vector<RunResult> results(kInstalls);
        std::vector<std::thread> installs;
        for (std::size_t i = 0; i < kInstalls; ++i) {
            installs.emplace_back([&results, &roots, &dir, i] {
                results[i] = run({CMAKE_COMMAND, "--install", KELP_BUILD_DIR, "--prefix", "/usr"},
                                 {"DESTDIR=" + roots[i]}, dir, 60s);
            });
        }
        for (std::thread &install : installs) {
            install.join();
        }
        for (std::size_t i = 0; i < kInstalls; ++i) {
            ASSERT_EQ(results[i].status, 0) << "round " << round << " install " << i << ":\n"
                                            << results[i].out << results[i].err;
            EXPECT_NE(readFile(roots[i] + "/usr/lib/systemd/system/kelpagent.service")
                          .find("ExecStart=/usr/sbin/kelpagent "),
                      std::string::npos);
            // A sanitizer build's root is tens of megabytes.
            fs::remove_all(roots[i]);
        }
    }
}

} // namespace
} // namespace kelp::test
