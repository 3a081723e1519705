// The host platform on a shared machine: another local user (uid 65534, entered with setresuid
// in a child, so root only) must not reach, control, impersonate or read the modem, nor redirect
// it through its service directory or a symbolic link; idle and stuck peers hold nobody up.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include "platform/VexProcess.h"
#include "platform/VexTestClient.h"

namespace {

using namespace vextest;
using Clock = std::chrono::steady_clock;

const char* const kSeed =
    "profile 3gpp name=internet apn=internet pdp=ipv4v6 user=alice password=hunter2\n";

using testsupport::readFile;

void writeText(const std::string& path, const std::string& text, mode_t mode) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    ::chmod(path.c_str(), mode);
}

// The permission bits, or -1 when nothing is there; a symbolic link is not followed.
int modeOf(const std::string& path) {
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777) : -1;
}

// A stream socket connected to path, or -1: system calls only, for a child process.
sockaddr_un unixAddress(const char* path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    return addr;
}

int rawConnect(const char* path) {
    const sockaddr_un addr = unixAddress(path);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Sends bytes (then ends the stream, when asked), and reads until the peer closes or 5 s pass:
// how many bytes came back before the close, or -1 when the connection stayed open. System calls
// only.
int sendAndCountReply(int fd, const std::vector<uint8_t>& bytes, bool endStream) {
    if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
        return 0;  // already closed on us
    }
    if (endStream) {
        ::shutdown(fd, SHUT_WR);
    }
    int total = 0;
    for (;;) {
        pollfd pfd{fd, POLLIN, 0};
        if (::poll(&pfd, 1, 5000) <= 0) {
            return -1;
        }
        char buffer[256];
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            return total;
        }
        total += static_cast<int>(n);
    }
}

// A socket bound at path (the file owned by whoever binds), not yet listening.
vexwire::UniqueFd boundSocket(const std::string& path) {
    const sockaddr_un addr = unixAddress(path.c_str());
    vexwire::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd && ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        fd.reset();
    }
    return fd;
}

using testsupport::ScopedEnv;

// Tests whose attacker is another local user.
class OtherUserTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "playing another local user takes root (to become uid " << kOtherUid
                         << ")";
        }
    }
    Result modemctl(const std::string& dir, const std::string& command, bool asOther = false) {
        return runCommand({VEX_MODEMCTL_PATH, "--dir", dir, command}, asOther);
    }
};

TEST_F(OtherUserTest, CannotReachControlOrReadTheModem) {
    testsupport::TempDir base;
    ASSERT_EQ(::chmod(base.path().c_str(), 0755), 0);  // the other user may look inside
    const std::string dir = base.file("modem");
    const std::string state = dir + "/state.conf";
    const std::string wdsPath = dir + "/wds";
    const std::string ctlPath = dir + "/vex-modemd.ctl";
    writeText(base.file("seed.conf"), kSeed, 0644);
    Daemon daemon;
    ASSERT_TRUE(
        daemon.start({"--dir", dir, "--seed", base.file("seed.conf"), "--state", state}, true));
    ASSERT_NE(daemon.readLine().find("serving WDS in " + dir), std::string::npos);
    // The others' modes are the modem files test's; the daemon adds the control socket.
    EXPECT_EQ(modeOf(ctlPath), 0600);

    int reached = runAsOtherUser([&] {
        return (rawConnect(wdsPath.c_str()) >= 0 ? 1 : 0) |
               (rawConnect(ctlPath.c_str()) >= 0 ? 2 : 0) |
               (::open(state.c_str(), O_RDONLY | O_CLOEXEC) >= 0 ? 4 : 0);
    });
    EXPECT_EQ(reached, 0) << "1: service socket, 2: control socket, 4: state file";
    Result down = modemctl(dir, "down", true);
    EXPECT_EQ(down.status, 1);
    EXPECT_EQ(down.output, "vex-modemctl: refusing service directory " + dir +
                               ": owned by uid 0, not by this user (uid 65534)\n");

    // Even with the filesystem opened up, the modem's credential check turns the user away.
    ASSERT_EQ(::chmod(dir.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(wdsPath.c_str(), 0666), 0);
    ASSERT_EQ(::chmod(ctlPath.c_str(), 0666), 0);
    std::vector<uint8_t> request = helloFrame();
    const auto list = requestFrame(VEX_WDS_GET_PROFILE_LIST_REQ_V01,
                                   std::vector<uint8_t>(sizeof(wds_get_profile_list_req_msg_v01)));
    request.insert(request.end(), list.begin(), list.end());
    const std::vector<uint8_t> command = {'d', 'o', 'w', 'n', '\0'};
    int answered = runAsOtherUser([&] {
        int service = rawConnect(wdsPath.c_str());
        int control = rawConnect(ctlPath.c_str());
        if (service < 0 || control < 0) {
            return 100;
        }
        // The service socket is not half-closed: the modem would drop the answer to a client
        // that has gone.
        return (sendAndCountReply(service, request, false) != 0 ? 1 : 0) |
               (sendAndCountReply(control, command, true) != 0 ? 2 : 0);
    });
    EXPECT_EQ(answered, 0) << "1: the modem answered, 2: the daemon answered";
    // Logged by the modem's thread and the control thread, in either order.
    std::string log = daemon.readLine() + daemon.readLine();
    EXPECT_NE(log.find("vexsim: refused a connection to " + wdsPath + " from uid 65534"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("vex-modemd: refused a control connection from uid 65534"),
              std::string::npos)
        << log;
    EXPECT_EQ(modemctl(dir, "status").output, "up " + dir + "\n");
    EXPECT_EQ(modeOf(state), 0600);
}

TEST_F(OtherUserTest, ClientsRefuseAModemRunByAnotherUser) {
    testsupport::TempDir dir;
    ScopedEnv env("VEX_SERVICE_DIR", dir.path().c_str());
    const std::string wdsPath = dir.file("wds");
    // Bound by this user but listening as the other one: every file check passes, only the
    // credentials, taken when listen is called, give the impostor away.
    vexwire::UniqueFd service = boundSocket(wdsPath);
    vexwire::UniqueFd control = boundSocket(dir.file("vex-modemd.ctl"));
    ASSERT_TRUE(service && control);
    ASSERT_EQ(runAsOtherUser([&] {
                  return ::listen(service.get(), 8) == 0 && ::listen(control.get(), 8) == 0 ? 0 : 1;
              }),
              0);

    vex_service_info info{};
    EXPECT_EQ(vex_client_get_any_service(wds(), &info), VEX_ERR_PEER_REFUSED);
    std::strncpy(info.path, wdsPath.c_str(), sizeof info.path - 1);
    vex_client_type handle = nullptr;
    vex_client_os_params os{};
    EXPECT_EQ(vex_client_init(&info, wds(), nullptr, nullptr, &os, &handle), VEX_ERR_PEER_REFUSED);
    EXPECT_EQ(handle, nullptr);
    Result status = modemctl(dir.path(), "status");
    EXPECT_EQ(status.status, 1);
    EXPECT_EQ(status.output, "vex-modemctl: refusing the daemon: " + dir.file("vex-modemd.ctl") +
                                 " is served by uid 65534, neither this user (uid 0) nor root\n");
#ifdef KELCTL_PATH
    Result add = runCommand({KELCTL_PATH, "--modem", dir.path(), "add", "--apn", "x.example",
                             "--user", "alice", "--password", "hunter2"});
    EXPECT_NE(add.status, 0);
    EXPECT_NE(add.output.find("the modem in " + dir.path() + " runs as another user"),
              std::string::npos)
        << add.output;
#endif

    // Whatever a client sent before it gave up is in the queued connections.
    int queued = 0;
    for (int listener : {service.get(), control.get()}) {
        for (int fd; (fd = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK)) >= 0; ++queued) {
            vexwire::UniqueFd accepted(fd);
            char buffer[512];
            EXPECT_LE(::recv(fd, buffer, sizeof buffer, 0), 0) << "bytes reached the impostor";
        }
    }
    EXPECT_GE(queued, 3);  // the service's two clients and the control's at least
}

TEST_F(OtherUserTest, PreparedOrRedirectedDirectoryIsRefusedByTheModemAndEveryClient) {
    testsupport::TempDir base;
    ASSERT_EQ(::chmod(base.path().c_str(), 01777), 0);  // shared, as /tmp is
    testsupport::TempDir elsewhere;
    writeText(elsewhere.file("wds"), "not a socket\n", 0600);
    writeText(elsewhere.file("vex-modemd.ctl"), "not a socket\n", 0600);
    struct Case {
        const char* name;
        std::function<bool(const std::string&)> plant;
        std::string reason;
    } cases[] = {
        {"created by the other user",
         [](const std::string& dir) {
             return runAsOtherUser([&] { return ::mkdir(dir.c_str(), 0700) == 0 ? 0 : 1; }) == 0;
         },
         ": owned by uid 65534, not by this user (uid 0)"},
        {"a symbolic link planted by the other user",
         [&](const std::string& dir) {
             return runAsOtherUser([&] {
                        return ::symlink(elsewhere.path().c_str(), dir.c_str()) == 0 ? 0 : 1;
                    }) == 0;
         },
         ": a symbolic link, not a directory"},
        {"writable by others",
         [](const std::string& dir) {
             return ::mkdir(dir.c_str(), 0700) == 0 && ::chmod(dir.c_str(), 0777) == 0;
         },
         ": writable by group or others (mode 0777)"},
    };
    int planted = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string dir = base.file("modem" + std::to_string(++planted));
        ASSERT_TRUE(c.plant(dir));
        const std::string refusal = "refusing service directory " + dir + c.reason;

        vexsim::Config config;
        config.serviceDir = dir;
        config.seedText = kSeed;
        vexsim::SimModem modem(config);
        std::string why;
        EXPECT_FALSE(modem.start(&why));
        EXPECT_EQ(why, refusal);
        Result daemon = runCommand({VEX_MODEMD_PATH, "--dir", dir});
        EXPECT_EQ(daemon.status, 1);
        EXPECT_EQ(daemon.output, "vex-modemd: " + refusal + "\n");
        Result ctl = modemctl(dir, "status");
        EXPECT_EQ(ctl.status, 1);
        EXPECT_EQ(ctl.output, "vex-modemctl: " + refusal + "\n");
        ScopedEnv env("VEX_SERVICE_DIR", dir.c_str());
        vex_service_info info{};
        EXPECT_EQ(vex_client_get_any_service(wds(), &info), VEX_ERR_UNSAFE_DIR);
        vex_client_type handle = nullptr;
        vex_client_os_params os{};
        EXPECT_EQ(vex_client_init(nullptr, wds(), nullptr, nullptr, &os, &handle),
                  VEX_ERR_UNSAFE_DIR);
#ifdef KELCTL_PATH
        Result list = runCommand({KELCTL_PATH, "--modem", dir, "list"});
        EXPECT_NE(list.status, 0);
        EXPECT_NE(list.output.find("--modem: " + refusal), std::string::npos) << list.output;
#endif
    }
    // Nothing was removed through the link.
    EXPECT_EQ(readFile(elsewhere.file("wds")), "not a socket\n");
    EXPECT_EQ(readFile(elsewhere.file("vex-modemd.ctl")), "not a socket\n");
}

TEST_F(OtherUserTest, DefaultDirectoryTakenFirstByTheOtherUserIsRefused) {
    testsupport::TempDir runtime;
    ASSERT_EQ(::chmod(runtime.path().c_str(), 01777), 0);
    ScopedEnv noDir("VEX_SERVICE_DIR", nullptr);
    ScopedEnv xdg("XDG_RUNTIME_DIR", runtime.path().c_str());
    const std::string dir = runtime.file("vex-services");
    ASSERT_EQ(runAsOtherUser([&] { return ::mkdir(dir.c_str(), 0755) == 0 ? 0 : 1; }), 0);
    Result daemon = runCommand({VEX_MODEMD_PATH});
    EXPECT_EQ(daemon.status, 1);
    EXPECT_EQ(daemon.output, "vex-modemd: refusing service directory " + dir +
                                 ": owned by uid 65534, not by this user (uid 0)\n");
    RecordingClient client;
    EXPECT_EQ(client.connect(), VEX_ERR_UNSAFE_DIR);
}

TEST(ServiceDirectoryTest, DefaultIsTheUsersOwn) {
    struct Case {
        const char* serviceDir;
        const char* runtimeDir;
        std::string expected;
    } cases[] = {
        {"/somewhere/else", "/run/user/1000", "/somewhere/else"},
        {"", "/run/user/1000", "/run/user/1000/vex-services"},
        {nullptr, nullptr, "/tmp/vex-services-" + std::to_string(::geteuid())},
    };
    for (const Case& c : cases) {
        ScopedEnv dir("VEX_SERVICE_DIR", c.serviceDir);
        ScopedEnv xdg("XDG_RUNTIME_DIR", c.runtimeDir);
        EXPECT_EQ(vexwire::serviceDirectory(), c.expected);
    }
}

// --- Files and modes ---

// Every test here runs under umask 000, which must change nothing.
class ModemFilesTest : public ::testing::Test {
  protected:
    void SetUp() override { savedUmask = ::umask(0); }
    void TearDown() override { ::umask(savedUmask); }

    vexsim::Config config(const std::string& state) {
        vexsim::Config c;
        c.serviceDir = dir.path();
        c.seedText = kSeed;
        c.stateFile = state;
        return c;
    }

    mode_t savedUmask = 0;
    testsupport::TempDir dir;
    testsupport::TempDir other;  // where a planted link points
};

TEST_F(ModemFilesTest, DirectorySocketsAndStateAreForTheOwnerAlone) {
    const std::string serviceDir = dir.file("fresh/modem");
    vexsim::Config c = config(dir.file("state.conf"));
    c.serviceDir = serviceDir;
    vexsim::SimModem modem(c);
    std::string why;
    ASSERT_TRUE(modem.start(&why)) << why;
    EXPECT_EQ(modeOf(dir.file("fresh")), 0700);
    EXPECT_EQ(modeOf(serviceDir), 0700);
    EXPECT_EQ(modeOf(serviceDir + "/wds"), 0600);
    EXPECT_EQ(modeOf(dir.file("state.conf")), 0600);
    ASSERT_TRUE(modem.createProfile(0, WDS_PROFILE_TYPE_3GPP_V01,
                                    settings3gpp("new", "new.example"), true));
    EXPECT_EQ(modeOf(dir.file("state.conf")), 0600);
    EXPECT_NE(readFile(dir.file("state.conf")).find("apn=new.example"), std::string::npos);
}

TEST_F(ModemFilesTest, NoSymbolicLinkAtTheStateOrItsTemporaryNameIsFollowed) {
    const std::string secret = other.file("secret");
    writeText(secret, "root only\n", 0600);
    const std::string state = dir.file("state.conf");
    {
        ASSERT_EQ(::symlink(secret.c_str(), state.c_str()), 0);
        vexsim::SimModem modem(config(state));
        std::string why;
        EXPECT_FALSE(modem.start(&why));
        EXPECT_EQ(why, "cannot read the state file " + state + ": a symbolic link, refused");
        ASSERT_EQ(::unlink(state.c_str()), 0);
    }
    // The name an earlier modem used for its temporary file.
    ASSERT_EQ(::symlink(secret.c_str(), (state + ".tmp").c_str()), 0);
    vexsim::SimModem modem(config(state));
    std::string why;
    ASSERT_TRUE(modem.start(&why)) << why;
    ASSERT_TRUE(modem.createProfile(0, WDS_PROFILE_TYPE_3GPP_V01,
                                    settings3gpp("new", "new.example"), true));
    EXPECT_EQ(readFile(secret), "root only\n");
    EXPECT_EQ(modeOf(secret), 0600);
    EXPECT_EQ(modeOf(state), 0600);
    EXPECT_NE(readFile(state).find("password=hunter2"), std::string::npos);
    // The planted link is left as it was, and no temporary file is left behind.
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        names.insert(entry.path().filename().string());
    }
    EXPECT_EQ(names, (std::set<std::string>{"state.conf", "state.conf.tmp", "wds"}));
    EXPECT_EQ(readFile(state + ".tmp"), "root only\n");
}

TEST_F(ModemFilesTest, StateAndSeedAreReadOnlyWhenRegularAndBounded) {
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::string huge = dir.file("huge.conf");
    {
        vexwire::UniqueFd fd(::open(huge.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_EQ(::ftruncate(fd.get(), 16 * 1024 * 1024 + 1), 0);
    }
    // The bound is inclusive: a seed of exactly 16 MiB is read, and its text refused.
    const std::string atBound = dir.file("at-bound.conf");
    std::ofstream(atBound) << std::string(16 * 1024 * 1024, 'x');
    struct Case {
        bool state;
        std::string path;
        std::string error;
    } cases[] = {
        {true, "/dev/full", "cannot read the state file /dev/full: not a regular file"},
        {true, fifo, "cannot read the state file " + fifo + ": not a regular file"},
        {false, fifo, "cannot read the seed file " + fifo + ": not a regular file"},
        {false, huge, "cannot read the seed file " + huge + ": larger than 16777216 bytes"},
        {false, atBound,
         "seed file " + atBound + ": line 1: expected 'profile', found '" + std::string(40, 'x') +
             "'..."},
        {true, dir.file("missing/state.conf"),
         "cannot write the state file " + dir.file("missing/state.conf") +
             ": cannot open its directory: No such file or directory"},
    };
    for (const Case& c : cases) {
        vexsim::Config cfg = config(c.state ? c.path : "");
        if (!c.state) {
            cfg.seedFile = c.path;
        }
        vexsim::SimModem modem(cfg);
        std::string why;
        EXPECT_FALSE(modem.start(&why)) << c.path;
        EXPECT_EQ(why, c.error);
    }
    Result daemon = runCommand({VEX_MODEMD_PATH, "--dir", dir.path(), "--state", "/dev/full"});
    EXPECT_EQ(daemon.status, 1);
    EXPECT_EQ(daemon.output,
              "vex-modemd: cannot read the state file /dev/full: not a regular file\n");
}

// --- Peers that hold on without talking ---

TEST(IdlePeersTest, IdleConnectionsAndASilentControlClientHoldNobodyUp) {
    testsupport::TempDir dir;
    ScopedEnv env("VEX_SERVICE_DIR", dir.path().c_str());
    Daemon daemon;
    ASSERT_TRUE(daemon.start(
        {"--dir", dir.path(), "--seed", testsupport::sourceDir() + "/data/modem-seed.conf"}));
    ASSERT_NE(daemon.readLine().find("serving WDS"), std::string::npos);
    std::vector<std::unique_ptr<RawPeer>> idle;
    for (int i = 0; i < 300; ++i) {
        idle.push_back(std::make_unique<RawPeer>(dir.path()));
        ASSERT_TRUE(idle.back()->ok()) << i;
    }
    const std::string ctlPath = dir.file("vex-modemd.ctl");
    vexwire::UniqueFd silent = vexwire::connectUnix(ctlPath, Clock::now() + kWait);
    vexwire::UniqueFd dribbling = vexwire::connectUnix(ctlPath, Clock::now() + kWait);
    ASSERT_TRUE(silent && dribbling);
    ASSERT_EQ(::send(dribbling.get(), "sta", 3, MSG_NOSIGNAL), 3);

    auto begin = Clock::now();
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    ASSERT_TRUE(client.registerAll(0));
    Result status = runCommand({VEX_MODEMCTL_PATH, "--dir", dir.path(), "status"});
    auto took = Clock::now() - begin;
    EXPECT_EQ(status.output, "up " + dir.path() + "\n");
    // A watchdog, not a speed goal: the control socket used to wait 5 s on each silent reader.
    EXPECT_LT(took, std::chrono::milliseconds(2500));

    // Connections that never greet are closed after the greeting bound; the control socket
    // closes those that never finish their command.
    EXPECT_FALSE(idle.back()->next().has_value());
    char byte;
    pollfd pfd{silent.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&pfd, 1, static_cast<int>(kWait.count())), 1);
    EXPECT_EQ(::recv(silent.get(), &byte, 1, 0), 0);
    ASSERT_TRUE(client.registerAll(0));
}

TEST(StuckServiceTest, AFullAcceptQueueHoldsNoCallPastItsBound) {
    testsupport::TempDir dir;
    ScopedEnv env("VEX_SERVICE_DIR", dir.path().c_str());
    // A service that never accepts: once its queue is full, a blocking connect would wait for
    // ever.
    vexwire::UniqueFd stuck = boundSocket(dir.file("wds"));
    ASSERT_TRUE(stuck);
    ASSERT_EQ(::listen(stuck.get(), 0), 0);
    std::vector<vexwire::UniqueFd> queued;
    vexwire::ConnectOutcome outcome;
    for (int i = 0; i < 16 && outcome.status != vexwire::ConnectStatus::Timeout; ++i) {
        queued.push_back(vexwire::connectUnix(
            dir.file("wds"), Clock::now() + std::chrono::milliseconds(100), &outcome));
    }
    ASSERT_EQ(outcome.status, vexwire::ConnectStatus::Timeout);

    auto watch = [](const std::function<vex_client_error_type()>& call) {
        auto begin = Clock::now();
        vex_client_error_type rc = call();
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(3));  // the bound is one second
        return rc;
    };
    vex_service_info info{};
    EXPECT_EQ(watch([&] { return vex_client_get_any_service(wds(), &info); }), VEX_ERR_TIMEOUT);
    vex_client_type handle = nullptr;
    vex_client_os_params os{};
    EXPECT_EQ(
        watch([&] { return vex_client_init(nullptr, wds(), nullptr, nullptr, &os, &handle); }),
        VEX_ERR_TIMEOUT);
    // A notifier waiting on the queue is released at once.
    vex_client_type notifier = nullptr;
    ASSERT_EQ(vex_client_notifier_init(wds(), &os, &notifier), VEX_NO_ERR);
    EXPECT_EQ(watch([&] { return vex_client_release(notifier); }), VEX_NO_ERR);
}

}  // namespace
