#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "framework/DualLog.h"

namespace TestSupport {

// Captures the text trace while alive: turns on the given filter, collects every line's text
// ("<signature>: <message>") and the level it was written at, then restores the default sink
// and switches the text trace off again.
class TraceCapture {
 public:
  struct Line {
    std::string handle;
    uint32_t level;
    std::string text;
  };

  explicit TraceCapture(std::string_view filter = "*/9") {
    DualLog::textSinkIs([this](const DualLog::TextRecord& r) {
      lines_.push_back({std::string(r.handle), r.level, std::string(r.text)});
    });
    DualLog::textFilterIs(filter);
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;
  ~TraceCapture() {
    DualLog::textFilterIs("");
    DualLog::textSinkIs(nullptr);
  }

  const std::vector<Line>& lines() const { return lines_; }
  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (const auto& l : lines_) out.push_back(l.text);
    return out;
  }
  // Number of lines whose text contains `piece`.
  size_t count(std::string_view piece) const {
    return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const Line& l) {
      return l.text.find(piece) != std::string::npos;
    }));
  }
  bool contains(std::string_view text) const {
    return std::any_of(lines_.begin(), lines_.end(), [&](const Line& l) { return l.text == text; });
  }
  void clear() { lines_.clear(); }

 private:
  std::vector<Line> lines_;
};

}  // namespace TestSupport
