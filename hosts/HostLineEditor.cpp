#include "hosts/HostLineEditor.h"

#include <editline/readline.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "framework/Assert.h"

namespace Hosts {

namespace {

LineEditor::Completer* activeCompleter = nullptr;
std::vector<std::string> candidates;

// Hands the candidates out one by one, as the readline interface asks for them (malloc'ed).
char* nextCandidate(const char*, int state) {
  static size_t next = 0;
  if (state == 0) next = 0;
  if (next >= candidates.size()) return nullptr;
  return strdup(candidates[next++].c_str());
}

char** complete(const char* text, int start, int end) {
  rl_attempted_completion_over = 1;  // never fall back to file names
  if (!activeCompleter) return nullptr;
  const std::string_view line(rl_line_buffer, static_cast<size_t>(end));
  candidates = (*activeCompleter)(line.substr(0, static_cast<size_t>(end)),
                                  line.substr(static_cast<size_t>(start)));
  if (candidates.empty()) return nullptr;
  return rl_completion_matches(text, nextCandidate);
}

}  // namespace

LineEditor::LineEditor(std::string historyFile, Completer completer)
    : historyFile_(std::move(historyFile)) {
  CORE_ASSERT(!activeCompleter);
  activeCompleter = new Completer(std::move(completer));
  rl_readline_name = "nexthop";
  rl_attempted_completion_function = complete;
  rl_completion_append_character = ' ';
  using_history();
  if (!historyFile_.empty()) read_history(historyFile_.c_str());
}

LineEditor::~LineEditor() {
  if (!historyFile_.empty()) write_history(historyFile_.c_str());
  rl_attempted_completion_function = nullptr;
  delete activeCompleter;
  activeCompleter = nullptr;
  candidates.clear();
}

std::optional<std::string> LineEditor::line(const std::string& prompt) {
  char* raw = readline(prompt.c_str());
  if (!raw) return std::nullopt;
  std::string text(raw);
  std::free(raw);
  if (text.find_first_not_of(" \t") != std::string::npos) add_history(text.c_str());
  return text;
}

std::string LineEditor::homeFile(std::string_view name) {
  const char* home = std::getenv("HOME");
  if (!home || !*home) return {};
  std::string path(home);
  if (!path.ends_with('/')) path += '/';
  return path + std::string(name);
}

}  // namespace Hosts
