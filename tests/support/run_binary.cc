#include "tests/support/run_binary.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log/log.h"
#include "tests/support/temp_dir.h"

run_result run_binary(const std::string& program, const std::vector<std::string>& args,
                      const std::string& input,
                      const std::vector<std::pair<std::string, std::string>>& env, const std::string& argv0) {
  // Files rather than pipes: nothing to pump, and no output size can block the child.
  temp_dir dir;
  const std::string in = dir.write("in", input), out = dir.file("out"), err = dir.file("err");
  const pid_t pid = fork();
  if (pid == 0) {
    const auto redirect = [](const std::string& path, int flags, int fd) {
      const int f = open(path.c_str(), flags, 0600);
      return f >= 0 && dup2(f, fd) == fd && close(f) == 0;
    };
    if (!redirect(in, O_RDONLY, 0) || !redirect(out, O_WRONLY | O_CREAT, 1) || !redirect(err, O_WRONLY | O_CREAT, 2))
      _exit(127);
    for (const auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
    std::vector<char*> argv{const_cast<char*>((argv0.empty() ? program : argv0).c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return {read_file(out), read_file(err), WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)};
}

run_result run_vornsearch(const std::vector<std::string>& args, const std::string& input,
                          const std::vector<std::pair<std::string, std::string>>& env, const std::string& argv0) {
  return run_binary(VORNSEARCH_BIN, args, input, env, argv0);
}

std::string vornsearch_log_prefix() { return std::string(VORNSEARCH_BIN).substr(0, LOG_PREFIX_CUT) + ": "; }
