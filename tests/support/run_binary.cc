#include "tests/support/run_binary.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

run_result run_binary(const std::string& program, const std::vector<std::string>& args,
                      const std::string& input,
                      const std::vector<std::pair<std::string, std::string>>& env) {
  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (pipe(in_pipe) || pipe(out_pipe) || pipe(err_pipe)) abort();
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in_pipe[0], 0);
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    for (int fd : {in_pipe[0], in_pipe[1], out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1]}) close(fd);
    for (const auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(in_pipe[0]);
  close(out_pipe[1]);
  close(err_pipe[1]);
  signal(SIGPIPE, SIG_IGN);

  run_result r;
  size_t written = 0;
  if (input.empty()) close(in_pipe[1]);
  bool in_open = !input.empty();
  bool out_open = true, err_open = true;
  if (in_open) fcntl(in_pipe[1], F_SETFL, O_NONBLOCK);
  while (out_open || err_open) {
    pollfd fds[3];
    int n = 0;
    int out_i = -1, err_i = -1, in_i = -1;
    if (out_open) { out_i = n; fds[n++] = {out_pipe[0], POLLIN, 0}; }
    if (err_open) { err_i = n; fds[n++] = {err_pipe[0], POLLIN, 0}; }
    if (in_open) { in_i = n; fds[n++] = {in_pipe[1], POLLOUT, 0}; }
    if (poll(fds, n, -1) < 0) continue;
    char buf[65536];
    if (out_i >= 0 && fds[out_i].revents) {
      ssize_t k = read(out_pipe[0], buf, sizeof buf);
      if (k > 0) r.out.append(buf, k); else out_open = false;
    }
    if (err_i >= 0 && fds[err_i].revents) {
      ssize_t k = read(err_pipe[0], buf, sizeof buf);
      if (k > 0) r.err.append(buf, k); else err_open = false;
    }
    if (in_i >= 0 && fds[in_i].revents) {
      ssize_t k = write(in_pipe[1], input.data() + written, input.size() - written);
      if (k > 0) written += k;
      if (k < 0 || written == input.size()) {
        close(in_pipe[1]);
        in_open = false;
      }
    }
  }
  if (in_open) close(in_pipe[1]);
  close(out_pipe[0]);
  close(err_pipe[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return r;
}

run_result run_vornsearch(const std::vector<std::string>& args, const std::string& input,
                          const std::vector<std::pair<std::string, std::string>>& env) {
  return run_binary(VORNSEARCH_BIN, args, input, env);
}
