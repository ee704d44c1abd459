// kelpctl end to end: the built program against a control socket served by
// this process, its exit codes (0 ok, 1 error answer, 2 usage or no socket),
// its output, and the default socket paths.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "control/control_testing.h"
#include "datastore/model_store.h"
#include "eventif/event_queue.h"
#include "kelp/runtime.h"

namespace {

using namespace kelp::ctl::testing;

struct CtlRun {
    int exitCode = -1;
    std::string out, err;
};

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Runs kelpctl with args in directory cwd, with exactly the environment env.
CtlRun kelpctl(const std::vector<std::string> &args, const std::vector<std::string> &env,
               const TempDir &io, const std::string &cwd = "/")
{
    std::vector<std::string> argStore = {KELPCTL_PATH};
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char *> argv, envp;
    for (auto &a : argStore)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStore = env;
    for (auto &e : envStore)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    const std::string outPath = io.file("out"), errPath = io.file("err");

    pid_t pid = fork();
    if (pid == 0) {
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0 || chdir(cwd.c_str()) != 0)
            _exit(126);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    CtlRun run;
    if (pid < 0) {
        ADD_FAILURE() << "fork failed";
        return run;
    }
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "kelpctl did not finish within 60 s";
            return run;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = slurp(outPath);
    run.err = slurp(errPath);
    return run;
}

class KelpctlTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(kelp::ds::loadModelText(kModel, "test-model", &error)) << error;
        kelp::ev::clearEvents();
        startAt(socket_);
    }
    void TearDown() override
    {
        kelpRuntimeStopControl();
        kelp::ds::unloadModel();
        kelp::ev::clearEvents();
    }
    void startAt(const std::string &path)
    {
        char message[256];
        ASSERT_EQ(kelpRuntimeStartControl(path.c_str(), message, sizeof message), 0) << message;
    }
    CtlRun ctl(const std::vector<std::string> &args)
    {
        std::vector<std::string> withSocket = {"--control", socket_};
        withSocket.insert(withSocket.end(), args.begin(), args.end());
        return kelpctl(withSocket, {}, dir_);
    }

    TempDir dir_;
    std::string socket_ = dir_.file("control.sock");
};

TEST_F(KelpctlTest, OkAnswerPrintsTheOutputAndTheOkAndExits0)
{
    CtlRun run = ctl({"status"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.starts_with("model: test-model\nready: yes\n")) << run.out;
    EXPECT_TRUE(run.out.ends_with("\nevent reader: not yet switched on\nok\n")) << run.out;
    EXPECT_EQ(run.err, "");
    run = ctl({"ready", "off"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "ok\n") << "a command without output prints the ok alone";
}

TEST_F(KelpctlTest, ArgumentsArriveAsTheyWereGiven)
{
    const std::string name = "Disk \"0\" \\ one\ttwo";
    CtlRun run = ctl({"set", "20", "Name", name});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "ok\n");
    run = ctl({"event", "7", "--parm", "a b", "--parm", "", "--field", "Note=x\ny"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(kelp::ev::takeOldestEvent(),
              "<EventID>7</EventID><Parm01>a b</Parm01><Parm02></Parm02><Note>x\ny</Note>");
    // Quotes may come back as entities; the rest of the value as it was.
    EXPECT_NE(singleObject(20).find("\\ one\ttwo</Name>"), std::string::npos) << singleObject(20);
}

TEST_F(KelpctlTest, ErrorAnswerGoesToStderrAndExits1)
{
    CtlRun run = ctl({"remove", "999"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(run.err.starts_with("error: ")) << run.err;
    // A command the server does not know is a usage error.
    run = ctl({"frobnicate"});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.err, "error: unknown command \"frobnicate\" (\"help\" lists the commands)\n");
    run = ctl({"event", "1", "--parm", std::string(70000, 'x')});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err, "error: command line longer than 65536 bytes\n");
}

TEST_F(KelpctlTest, UsageErrorsAndAnUnreachableSocketExit2)
{
    CtlRun run = kelpctl({"--control", socket_}, {}, dir_);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("no command given"), std::string::npos) << run.err;
    run = kelpctl({"--bogus", "status"}, {}, dir_);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("unknown option --bogus"), std::string::npos) << run.err;
    run = kelpctl({"--control"}, {}, dir_);
    EXPECT_EQ(run.exitCode, 2);

    const std::string missing = dir_.file("missing.sock");
    run = kelpctl({"--control", missing, "status"}, {}, dir_);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("cannot reach the control socket " + missing), std::string::npos)
        << run.err;

    for (const char *help : {"--help", "-h"}) {
        run = kelpctl({help}, {}, dir_);
        EXPECT_EQ(run.exitCode, 0) << help;
        EXPECT_EQ(run.out.rfind("usage: kelpctl [--control SOCKET] COMMAND [ARGS...]\n", 0), 0u)
            << help;
        EXPECT_NE(run.out.find("prints \"ok\""), std::string::npos) << run.out;
        EXPECT_EQ(run.err, "") << help;
    }
    run = kelpctl({"--control", socket_, "-h"}, {}, dir_);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out.rfind("usage: kelpctl", 0), 0u);
}

TEST_F(KelpctlTest, DefaultSocketIsKelpControlThenXdgStateHomeThenHome)
{
    CtlRun run =
        kelpctl({"status"}, {"KELP_CONTROL=" + socket_, "XDG_STATE_HOME=/nonexistent"}, dir_);
    EXPECT_EQ(run.exitCode, 0) << run.err;

    std::filesystem::create_directories(dir_.file("state/kelp"));
    startAt(dir_.file("state/kelp/control.sock"));
    run = kelpctl({"status"}, {"XDG_STATE_HOME=" + dir_.file("state"), "HOME=/nonexistent"}, dir_);
    EXPECT_EQ(run.exitCode, 0) << run.err;

    std::filesystem::create_directories(dir_.file("home/.local/state/kelp"));
    startAt(dir_.file("home/.local/state/kelp/control.sock"));
    run = kelpctl({"status"}, {"HOME=" + dir_.file("home")}, dir_);
    EXPECT_EQ(run.exitCode, 0) << run.err;

    run = kelpctl({"status"}, {"HOME=" + dir_.file("nowhere")}, dir_);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find(dir_.file("nowhere/.local/state/kelp/control.sock")), std::string::npos)
        << run.err;
}

TEST_F(KelpctlTest, LoadTakesARelativeFileFromKelpctlsDirectory)
{
    dir_.write("other.xml", "<storage ready=\"1\"><object id=\"7\" type=\"Tape\">"
                            "<Nexus>t7</Nexus></object></storage>");
    CtlRun run = kelpctl({"--control", socket_, "load", "other.xml"}, {}, dir_, dir_.path());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(singleObject(7).find("<Nexus>t7</Nexus>"), std::string::npos);
}

TEST_F(KelpctlTest, SaveTakesARelativeFileFromKelpctlsDirectoryAndLoadServesItTheSame)
{
    ASSERT_EQ(ctl({"set", "20", "Name", "a\tb \"c\" <d> & \\e "}).exitCode, 0);
    const std::string before = singleObject(20);
    CtlRun run = kelpctl({"--control", socket_, "save", "saved.xml"}, {}, dir_, dir_.path());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "ok\n");
    ASSERT_TRUE(std::filesystem::is_regular_file(dir_.file("saved.xml")));

    ASSERT_EQ(ctl({"set", "20", "Name", "changed"}).exitCode, 0);
    run = kelpctl({"--control", socket_, "load", "saved.xml"}, {}, dir_, dir_.path());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(singleObject(20), before);
    EXPECT_NE(ctl({"status"}).out.find("model: " + dir_.file("saved.xml") + "\n"),
              std::string::npos);

    run = kelpctl({"--control", socket_, "save", "."}, {}, dir_, dir_.path());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err, "error: " + dir_.path() + "/.: is a directory\n");
    run = ctl({"--no-events", "save", dir_.file("x.xml")});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_FALSE(std::filesystem::exists(dir_.file("x.xml")));
}

TEST_F(KelpctlTest, ModelChangesQueueTheRescanPairUnlessNoEvents)
{
    dir_.write("other.xml", "<storage ready=\"1\"><object id=\"7\" type=\"Tape\">"
                            "<Nexus>t7</Nexus></object></storage>");
    const std::string add = R"(<object id="60" type="fans" parent="90"/>)";
    CtlRun run = ctl({"add", "--xml", add});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "ok\n");
    EXPECT_EQ(kelp::ev::takeOldestEvent(), "<EventID>3061</EventID>");
    EXPECT_EQ(kelp::ev::takeOldestEvent(), "<EventID>3060</EventID>");

    // --no-events before the command, after it, or last.
    for (const std::vector<std::string> &args : {
             std::vector<std::string>{"--control", socket_, "--no-events", "remove", "60"},
             std::vector<std::string>{"--control", socket_, "add", "--no-events", "--xml", add},
             std::vector<std::string>{"--no-events", "--control", socket_, "load", "other.xml"},
             std::vector<std::string>{"--control", socket_, "load", "other.xml", "--no-events"},
         }) {
        run = kelpctl(args, {}, dir_, dir_.path());
        EXPECT_EQ(run.exitCode, 0) << args[2] << " " << args[3] << ": " << run.err;
    }
    EXPECT_NE(singleObject(7).find("<Nexus>t7</Nexus>"), std::string::npos);
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);

    run = ctl({"--no-events", "status"});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("--no-events goes with load, add and remove only"), std::string::npos)
        << run.err;
    run = ctl({"load", "--no-event", "other.xml"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err,
              "error: unknown load option \"--no-event\"; usage: load [--no-events] FILE\n");
    run = ctl({"remove", "7", "--no-events", "--no-events"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err, "error: --no-events given twice\n");
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
    EXPECT_NE(singleObject(7).find("<Nexus>t7</Nexus>"), std::string::npos);
}

TEST_F(KelpctlTest, EventPastTheQueueBoundIsAnErrorAnswer)
{
    for (size_t i = 0; i < kelp::ev::kMaxQueuedEvents; ++i)
        ASSERT_TRUE(kelp::ev::queueEvent("<EventID>" + std::to_string(i) + "</EventID>", nullptr));
    CtlRun run = ctl({"event", "2048", "--object", "20"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err,
              "error: event queue is full (10000 events waiting to be read, at most 10000)\n");
    EXPECT_EQ(kelp::ev::queuedEvents(), kelp::ev::kMaxQueuedEvents);
}

} // namespace
