#include "framework/DualLog.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "framework/CoreSignature.h"

namespace DualLog {

namespace {

std::string_view trimBlanks(std::string_view s) {
  size_t begin = s.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  size_t end = s.find_last_not_of(" \t");
  return s.substr(begin, end - begin + 1);
}

[[noreturn]] void badItem(std::string_view item, std::string_view why) {
  throw std::invalid_argument("bad trace filter item '" + std::string(item) +
                              "': " + std::string(why));
}

uint32_t parseLevel(std::string_view item, std::string_view text) {
  uint32_t level = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), level);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || level > kMaxLevel) {
    badItem(item, "LEVEL must be a number from 0 to 9");
  }
  return level;
}

std::string_view baseName(std::string_view path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// Position of the bracket that opens the one closing at `close`, or npos.
size_t matchingOpen(std::string_view s, size_t close, char open, char shut) {
  int depth = 0;
  for (size_t i = close + 1; i-- > 0;) {
    if (s[i] == shut) ++depth;
    if (s[i] == open && --depth == 0) return i;
  }
  return std::string_view::npos;
}

bool isIdentChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// "operator<<", "operator()" or "operator bool" when `head` names an operator.
std::string_view operatorName(std::string_view head) {
  size_t op = head.rfind("operator");
  if (op == std::string_view::npos) return {};
  bool startsName = op == 0 || head[op - 1] == ':' || head[op - 1] == ' ';
  size_t after = op + 8;
  bool keyword = after == head.size() || !isIdentChar(head[after]);
  if (!startsName || !keyword || head.find("::", after) != std::string_view::npos) return {};
  return head.substr(op);
}

}  // namespace

TextFilter TextFilter::parse(std::string_view filter) {
  TextFilter result;
  result.text_ = std::string(filter);
  if (trimBlanks(filter).empty()) return result;
  size_t pos = 0;
  while (pos <= filter.size()) {
    size_t comma = std::min(filter.find(',', pos), filter.size());
    std::string_view item = trimBlanks(filter.substr(pos, comma - pos));
    size_t slash = item.rfind('/');
    if (slash == std::string_view::npos) badItem(item, "expected HANDLE/LEVEL");
    std::string_view handle = trimBlanks(item.substr(0, slash));
    if (handle.empty()) badItem(item, "expected HANDLE/LEVEL, HANDLE is empty");
    uint32_t level = parseLevel(item, trimBlanks(item.substr(slash + 1)));
    result.rules_.push_back({std::string(handle), level});
    pos = comma + 1;
  }
  return result;
}

uint32_t TextFilter::levelMask(std::string_view handle) const {
  uint32_t mask = 0;
  for (const Rule& rule : rules_) {
    if (rule.handle == "*" || rule.handle == handle) mask |= (2u << rule.maxLevel) - 1;
  }
  return mask;
}

namespace detail {

// Every live handle and the filter they follow. Never destroyed, so that handles that are
// function-local statics can unregister in any order at exit.
class Handles {
 public:
  static Handles& instance() {
    static auto* handles = new Handles;
    return *handles;
  }

  void add(Handle& handle) {
    all_.push_back(&handle);
    handle.textLevels_ = filter_.levelMask(handle.name_);
  }
  void remove(Handle& handle) { std::erase(all_, &handle); }

  const TextFilter& filter() const { return filter_; }
  void filterIs(TextFilter filter) {
    filter_ = std::move(filter);
    for (Handle* h : all_) h->textLevels_ = filter_.levelMask(h->name_);
  }

 private:
  Handles() : filter_(environmentFilter()) {}

  // FWD_TRACE is outside input: a malformed value is reported and leaves the text trace off.
  static TextFilter environmentFilter() {
    const char* env = std::getenv("FWD_TRACE");
    if (!env) return {};
    try {
      return TextFilter::parse(env);
    } catch (const std::invalid_argument& e) {
      std::fprintf(stderr, "FWD_TRACE: %s; the text trace stays off\n", e.what());
      return {};
    }
  }

  std::vector<Handle*> all_;
  TextFilter filter_;
};

}  // namespace detail

Handle::Handle(const char* name, bool) : name_(name) { detail::Handles::instance().add(*this); }

Handle::~Handle() { detail::Handles::instance().remove(*this); }

void textFilterIs(std::string_view filter) {
  detail::Handles::instance().filterIs(TextFilter::parse(filter));
}

std::string textFilter() { return detail::Handles::instance().filter().text(); }

namespace {

// Where text lines go: a sink set by the program, or the trace file or stderr.
struct Sink {
  std::function<void(const TextRecord&)> custom;
  std::FILE* file = nullptr;
};

Sink& sink() {
  static auto* s = new Sink;
  return *s;
}

// FWD_TRACE_FILE, opened on the first line; if it cannot be opened, lines go to stderr.
std::FILE* defaultFile() {
  Sink& s = sink();
  if (s.file) return s.file;
  s.file = stderr;
  if (const char* path = std::getenv("FWD_TRACE_FILE"); path && *path) {
    if (std::FILE* f = std::fopen(path, "a")) {
      s.file = f;
    } else {
      std::fprintf(stderr, "FWD_TRACE_FILE: cannot open '%s': %s; tracing to stderr\n", path,
                   std::strerror(errno));
    }
  }
  return s.file;
}

// Flushed line by line, so that the lines before an assertion's abort are kept.
void writeDefault(const TextRecord& r) {
  std::string line;
  line.append(r.file).append(":").append(std::to_string(r.line)).append(" ");
  line.append(r.shortFunction).append(" [").append(r.handle).append("/");
  line.append(std::to_string(r.level)).append("] ").append(r.text).append("\n");
  std::FILE* out = defaultFile();
  std::fwrite(line.data(), 1, line.size(), out);
  std::fflush(out);
}

}  // namespace

void textSinkIs(std::function<void(const TextRecord&)> s) { sink().custom = std::move(s); }

std::string_view shortFunctionName(std::string_view signature) {
  std::string_view sig = signature.substr(0, signature.find(" [with "));
  size_t close = sig.rfind(')');
  size_t open = close == std::string_view::npos ? close : matchingOpen(sig, close, '(', ')');
  std::string_view head = open == std::string_view::npos ? sig : sig.substr(0, open);
  if (std::string_view op = operatorName(head); !op.empty()) return op;
  while (!head.empty() && head.back() == '>') {
    size_t angle = matchingOpen(head, head.size() - 1, '<', '>');
    if (angle == std::string_view::npos) break;
    head = head.substr(0, angle);
  }
  size_t start = head.find_last_of(": *&");
  return start == std::string_view::npos ? head : head.substr(start + 1);
}

namespace detail {

const RingLog::MessageInfo& messageIs(const Handle& handle, uint32_t level, const char* file,
                                      uint32_t line, const char* function,
                                      std::vector<RingLog::Item> items) {
  RingLog::MessageInfo info;
  info.file = std::string(baseName(file));
  info.line = line;
  info.function = Core::gccSpelling(function);
  info.level = level;
  info.handle = handle.name();
  info.items = std::move(items);
  return RingLog::messageIs(std::move(info));
}

void emitText(const RingLog::MessageInfo& message, std::string_view text) {
  TextRecord record{message.file,  message.line,   shortFunctionName(message.function),
                    message.level, message.handle, text};
  if (sink().custom) {
    sink().custom(record);
  } else {
    writeDefault(record);
  }
}

}  // namespace detail

}  // namespace DualLog
