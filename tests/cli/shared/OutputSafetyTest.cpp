// What the tool may write over, and how it ends when it cannot go on: a shot's own inputs, files
// that are not regular files, threads the system refuses, a standard output nobody reads, and
// the temporary files of a killed run.
#include <fcntl.h>
#include <sys/stat.h>

#include <csignal>
#include <system_error>

#include "../CliTestSupport.h"
#include "cli/shared/AtomicFile.h"
#include "hostsim/ThreadPool.h"

using namespace vt_cli_test;

namespace {

// x.1.png .. x.12.png, 4x3 RGB.
void WriteShot(const ScratchDir& dir) {
  const auto px = NoiseBytes(4 * 3 * 3, 5);
  for (int f = 1; f <= 12; ++f) {
    WriteImage(dir / ("x." + std::to_string(f) + ".png"), 4, 3, 3, OIIO::TypeDesc::UINT8,
               OIIO::TypeDesc::UINT8, px.data());
  }
}

// The built program with `stdoutFd` as its standard output and SIGPIPE as the system leaves it.
RunResult RunWithStdout(const Args& args, int stdoutFd) {
  const std::string errPath =
      (fs::path(::testing::TempDir()) / ("vt_cli_err_" + std::to_string(getpid()))).string();
  Args all = Cat({VT_CLI_PATH, "--plugin", VT_EFFECT_PATH}, args);
  std::vector<char*> argv;
  for (std::string& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  const int errFd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const pid_t pid = fork();
  if (pid == 0) {
    signal(SIGPIPE, SIG_DFL);
    dup2(stdoutFd, 1);
    dup2(errFd, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(errFd);
  int status = 0;
  waitpid(pid, &status, 0);
  RunResult r{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), "",
              Slurp(errPath)};
  fs::remove(errPath);
  return r;
}

}  // namespace

// OUT of one frame naming IN of another (x.1%d.png: frame 1 writes x.11.png), also through a
// link, "..", or a frame on disk outside --frames: refused before anything is written.
TEST(OutputSafety, AShotThatWouldWriteOverItsOwnInputIsRefusedBeforeAnyWork) {
  ScratchDir dir;
  WriteShot(dir);
  fs::create_directory(dir.path() / "sub");
  fs::create_symlink("x.7.png", dir / "l.5.png");
  const Args cases[] = {
      {dir / "x.%d.png", dir / "x.1%d.png"},
      {dir / "x.%d.png", dir / "x.1%d.png", "--frames", "1-2"},
      {dir / "x.%d.png", dir / "sub/../x.%02d.png"},
      {dir / "x.%d.png", dir / "l.%d.png", "--keep-going"},
  };
  const Snapshot before = Take(dir.path());
  for (const Args& c : cases) {
    ExpectRefusal(RunTool(Cat({"render"}, c)), 2, "own input", c[1]);
  }
  EXPECT_EQ(Take(dir.path()), before);
}

// Links (even to a regular file), pipes and folders are never replaced, by any command; a
// sequence finds such an OUT before its first frame.
TEST(OutputSafety, OutputsReplaceRegularFilesOnly) {
  ScratchDir dir;
  WriteShot(dir);
  Write(dir / "kept.png", "the file a link names");
  fs::create_symlink("kept.png", dir / "link.png");
  fs::create_symlink("nowhere.exr", dir / "dangling.exr");
  fs::create_symlink("kept.png", dir / "o.2.png");
  ASSERT_EQ(mkfifo((dir / "fifo.png").c_str(), 0644), 0);
  fs::create_directory(dir.path() / "folder.json");
  const std::pair<Args, const char*> cases[] = {
      {{"render", dir / "x.1.png", dir / "link.png"}, "symbolic link"},
      {{"render", dir / "x.%d.png", dir / "o.%d.png"}, "symbolic link"},
      {{"stmap", dir / "dangling.exr", "--size", "8x6"}, "symbolic link"},
      {{"chart", dir / "fifo.png", "--size", "8x6"}, "a pipe"},
      {{"lens", "-o", dir / "link.png"}, "symbolic link"},
      {{"lens", "-o", dir / "folder.json"}, "is a folder"},
  };
  const Snapshot before = Take(dir.path());
  for (const auto& [args, mentions] : cases) {
    ExpectRefusal(RunTool(args), 2, mentions, args[0] + " " + args.back());
  }
  EXPECT_EQ(Take(dir.path()), before);
}

// Whichever thread the system refuses first (the reader's, the writer's, a render thread), the
// command ends with exit 2 and says so: no hang, no abort, nothing left behind.
TEST(OutputSafety, ARefusedThreadEndsTheCommandWithExit2) {
  ScratchDir dir;
  WriteShot(dir);
  const Args shot = {"render", dir / "x.%d.png", dir / "o.%d.png", "--threads", "8",
                     "--progress", "none"};
  const std::tuple<int, Args, const char*> cases[] = {
      {0, shot, "cannot start the threads that read and write the frames"},
      {1, shot, "cannot start the threads that read and write the frames"},
      {2, shot, "frame 1: cannot start 8 render threads: Resource temporarily unavailable"},
      {6, shot, "cannot start 8 render threads"},
      {0, {"stmap", dir / "m.exr", "--size", "8x6", "--threads", "3"}, "3 render threads"},
  };
  const Snapshot before = Take(dir.path());
  for (const auto& [started, args, mentions] : cases) {
    hostsim::FailThreadStartsAfter(started);
    const RunResult r = RunTool(args);
    hostsim::FailThreadStartsAfter(-1);
    ExpectRefusal(r, 2, mentions, args[0] + " after " + std::to_string(started) + " threads");
    EXPECT_EQ(Take(dir.path()), before) << started;
  }
}

// A full disk or a reader that has gone: exit 2 with the reason, not exit 0 nor death by
// SIGPIPE; a render stops at once and leaves no temporary file.
TEST(OutputSafety, StandardOutputThatCannotBeWrittenIsExit2) {
  ScratchDir dir;
  WriteShot(dir);
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  int pipeFds[2];
  ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
  close(pipeFds[0]);  // nobody reads
  const int closed = pipeFds[1];
  const std::tuple<Args, int, const char*> cases[] = {
      {{"lens", "--distortion", "-10"}, full, "No space left on device"},
      {{"info", "--json"}, full, "No space left on device"},
      {{"info"}, closed, "Broken pipe"},
      {{"render", dir / "x.%d.png", dir / "o.%d.png", "--progress", "lines"}, closed,
       "Broken pipe"},
  };
  for (const auto& [args, fd, mentions] : cases) {
    const RunResult r = RunWithStdout(args, fd);
    ExpectRefusal(r, 2, std::string("cannot write to standard output: ") + mentions, args[0]);
  }
  close(full);
  close(closed);
  EXPECT_FALSE(fs::exists(dir / "o.12.png")) << "the render went on";
  for (const auto& e : fs::directory_iterator(dir.path())) {
    EXPECT_NE(e.path().filename().string()[0], '.') << e.path();
  }
}

// A temporary file is hidden and ends in ".tmp" and the extension, never in a number and the
// extension as a frame does. One left by a killed writer on this machine (its lock free) is
// removed by the next run into its folder; one still locked, or another machine's, is not.
TEST(OutputSafety, AKilledWritersTemporaryFileIsRemovedByTheNextRun) {
  ScratchDir dir, other;
  WriteShot(dir);
  std::string name;
  {
    veltrisca::TempOutputFile probe(other / "o.1009.exr");
    name = fs::path(probe.path()).filename().string();
  }
  const std::string pid = "-" + std::to_string(getpid()) + "-";
  const size_t at = name.find(pid), host = name.find(".veltrisca-") + 11;
  ASSERT_TRUE(name.rfind(".o.1009.exr.veltrisca-", 0) == 0 && at != std::string::npos) << name;
  EXPECT_EQ(name.substr(at + pid.size() + 6), ".tmp.exr") << name;
  auto like = [&](const std::string& random, const std::string& machine) {
    std::string n = name;
    n.replace(at + pid.size(), 6, random);
    if (!machine.empty()) n.replace(host, at - host, machine);
    Write(dir / n, "");
    return dir / n;
  };
  const std::string stale = like("STALE1", ""), live = like("LIVE01", ""),
                    elsewhere = like("STALE2", "farm-node-7");
  Write(dir / ".o.1009.exr.Ab12Cd.exr", "");  // not named as the tool names its files
  std::string noPid = name;  // nor without the writer's process number
  noPid.replace(at, pid.size(), "--");
  Write(dir / noPid, "");
  const int held = open(live.c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(held, F_OFD_SETLK, &lock), 0);

  RunOk({"render", dir / "x.1.png", dir / "o.png"});
  close(held);
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_TRUE(fs::exists(live));
  EXPECT_TRUE(fs::exists(elsewhere));
  EXPECT_TRUE(fs::exists(dir / ".o.1009.exr.Ab12Cd.exr") && fs::exists(dir / noPid));
  // The longest name a folder takes still has room for its temporary file's.
  RunOk({"render", dir / "x.1.png", dir / (std::string(251, 'n') + ".png")});
}
