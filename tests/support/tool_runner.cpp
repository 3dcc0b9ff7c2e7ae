// The velmoractl runner: fork, drop to the test user when asked, exec the
// installed tool, and collect both outputs until it ends.
#include "support/tool_runner.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "support/settings_test_util.h"

namespace velmora {
namespace test {

using namespace settings_test;

namespace {

constexpr char kTool[] = VELMORACTL_PATH;

}  // namespace

Result Tool(const std::vector<std::string>& args, const std::string& user,
            std::chrono::seconds limit) {
  int out_pipe[2], err_pipe[2];
  Result result;
  if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) return result;
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + limit;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    if (!user.empty()) {
      if (setgroups(0, nullptr) != 0 || setgid(GidOf(user)) != 0 || setuid(UidOf(user)) != 0) {
        _exit(99);
      }
    }
    std::vector<char*> argv{const_cast<char*>(kTool)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(kTool, argv.data());
    _exit(98);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_pipes = 2;
  while (open_pipes > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    const int ready = poll(fds, 2, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (ready == 0) {
      result.timed_out = true;
      kill(pid, SIGKILL);
      break;
    }
    if (ready < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buf[4096];
      const ssize_t n = read(fds[i].fd, buf, sizeof(buf));
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_pipes;
      }
    }
  }
  for (pollfd& fd : fds) {
    if (fd.fd >= 0) close(fd.fd);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors))
      << errors << " in " << text;
  return value;
}

bool NoVelmoractlLeft() {
  for (int i = 0; i < 2000; ++i) {
    if (ProcessesNamed("velmoractl").empty()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

}  // namespace test
}  // namespace velmora
