#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

// Runs the programs of this build tree as a user would, with their exit status and output.
namespace ToolRun {

namespace fs = std::filesystem;

struct Result {
  int status = -1;  // the exit status, -1 when the program did not exit
  std::string out;
  std::string err;
};

// Where the program's standard input comes from.
struct Input {
  enum class Kind { text, path, closed } kind = Kind::text;
  std::string value;  // the text, or the path
  static Input text(std::string text) { return {Kind::text, std::move(text)}; }
  static Input path(std::string path) { return {Kind::path, std::move(path)}; }
  static Input closed() { return {Kind::closed, {}}; }
};

inline std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A program built in <build>/tools, tests being in <build>/tests.
inline fs::path tool(const std::string& name) {
  return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" / name;
}

// A scratch directory for one test, removed with it.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& name)
      : path_(fs::temp_directory_path() / (name + "-" + std::to_string(getpid()))) {
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const fs::path& path() const { return path_; }
  fs::path operator/(const std::string& name) const { return path_ / name; }
  // Writes `text` to the file `name` in the directory; returns its path.
  std::string file(const std::string& name, const std::string& text) const {
    std::ofstream(path_ / name, std::ios::binary) << text;
    return (path_ / name).string();
  }

 private:
  fs::path path_;
};

// Runs `program` with `args` and `input`; standard output goes to `stdoutPath` when given (as
// /dev/full), else it is captured. `env` entries ("NAME=VALUE") are added to the environment.
inline Result run(const fs::path& program, const std::vector<std::string>& args,
                  const Input& input = Input::text(""), const std::vector<std::string>& env = {},
                  const std::optional<std::string>& stdoutPath = std::nullopt) {
  const fs::path dir = fs::temp_directory_path() /
                       ("ToolRun-" + std::to_string(getpid()) + "-" + program.filename().string());
  fs::create_directories(dir);
  const fs::path in = dir / "stdin", out = dir / "stdout", err = dir / "stderr";
  if (input.kind == Input::Kind::text) std::ofstream(in, std::ios::binary) << input.value;
  const pid_t pid = fork();
  if (pid == 0) {
    const auto redirect = [](const std::string& path, int flags, int target) {
      const int fd = ::open(path.c_str(), flags, 0644);
      if (fd < 0) _exit(127);
      dup2(fd, target);
      ::close(fd);
    };
    if (input.kind == Input::Kind::closed) {
      ::close(STDIN_FILENO);
    } else {
      redirect(input.kind == Input::Kind::path ? input.value : in.string(), O_RDONLY, STDIN_FILENO);
    }
    redirect(stdoutPath.value_or(out.string()), O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO);
    redirect(err.string(), O_WRONLY | O_CREAT | O_TRUNC, STDERR_FILENO);
    for (const std::string& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> argv;
    const std::string name = program.string();
    argv.push_back(const_cast<char*>(name.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(name.c_str(), argv.data());
    _exit(127);
  }
  Result result;
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  }
  if (!stdoutPath) result.out = slurp(out);
  result.err = slurp(err);
  fs::remove_all(dir);
  return result;
}

}  // namespace ToolRun
