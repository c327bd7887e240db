#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Hosts {

// Reads command lines from a terminal with line editing, history and completion (libedit's
// readline interface). One per process at a time: the library's state is global.
class LineEditor {
 public:
  // The words that may complete `word`, the last (partial) word of `line` before the cursor.
  using Completer =
      std::function<std::vector<std::string>(std::string_view line, std::string_view word)>;

  // Reads the history from `historyFile` (none when empty) and completes with `completer`.
  LineEditor(std::string historyFile, Completer completer);
  // Writes the history back.
  ~LineEditor();
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  // The next line, after `prompt`; nothing at the end of input. A line with words goes to the
  // history.
  std::optional<std::string> line(const std::string& prompt);

  // "$HOME/NAME", or empty when HOME is not set.
  static std::string homeFile(std::string_view name);

 private:
  std::string historyFile_;
};

}  // namespace Hosts
