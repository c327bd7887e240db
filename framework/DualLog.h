#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "framework/RingLog.h"

// One trace statement, two back-ends: the binary ring trace (RingLog) and the text trace.
//
// A source unit defines, in an anonymous namespace,
//   [[gnu::always_inline]] inline DualLog::Handle& traceHandle() {
//     static DualLog::Handle h("UnitName", false);
//     return h;
//   }
// (inlined, so that a statement costs a guard test rather than a call to reach its handle) and
// traces with DUALLOG_TRACE(level, "piece", value, "piece", ...). String literals are the
// message's literal pieces; every other argument is a value, printed with operator<<. The text is
// the function's signature as GCC prints it (whichever compiler built it, see CoreSignature.h),
// ": ", then the pieces and values in order.
//
// The text trace is chosen per handle and level by a filter of comma-separated HANDLE/LEVEL items
// ("*" matches every handle; an item turns on levels 0..LEVEL), read from the environment variable
// FWD_TRACE or set with textFilterIs(). The default sink appends one line per message,
//   "<file>:<line> <shortFunction> [<handle>/<level>] <text>\n",
// to the file named by FWD_TRACE_FILE (opened once, appending) or else to stderr.
//
// Handles, the filter and the sink are used from one thread, the agent's event loop.
namespace DualLog {

inline constexpr uint32_t kMaxLevel = 9;

// One line of the text trace as the sink receives it; the views are valid during the call only.
struct TextRecord {
  std::string_view file;  // the source file's base name
  uint32_t line = 0;
  std::string_view shortFunction;
  uint32_t level = 0;
  std::string_view handle;
  std::string_view text;
};

// Which text-trace levels are on for which handle names. Parsed from "HANDLE/LEVEL,...";
// blanks around items are ignored and the empty filter turns everything off.
class TextFilter {
 public:
  TextFilter() = default;
  // Throws std::invalid_argument naming the first malformed item.
  static TextFilter parse(std::string_view filter);

  // Bit L is set when level L is on for `handle`.
  uint32_t levelMask(std::string_view handle) const;
  const std::string& text() const { return text_; }

 private:
  struct Rule {
    std::string handle;  // a handle name or "*"
    uint32_t maxLevel;
  };
  std::vector<Rule> rules_;
  std::string text_;
};

namespace detail {
class Handles;
}

// The trace handle of one source unit, named after it. Holds which text-trace levels are on for
// it; the current filter sets them at construction and textFilterIs() updates them.
class Handle {
 public:
  // The second argument is unused; it keeps the host's constructor signature.
  Handle(const char* name, bool);
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const std::string& name() const { return name_; }
  bool textOn(uint32_t level) const { return level <= kMaxLevel && (textLevels_ >> level) & 1u; }

 private:
  friend class detail::Handles;

  std::string name_;
  uint32_t textLevels_ = 0;
};

// Replaces the text-trace filter for every handle, present and future. Throws
// std::invalid_argument for a malformed filter and then changes nothing.
void textFilterIs(std::string_view filter);
// The filter in force, as given.
std::string textFilter();

// Sends text-trace lines to `sink`; nullptr restores the default sink.
void textSinkIs(std::function<void(const TextRecord&)> sink);

// The unqualified name of the function in a signature as GCC prints it ("handleConfig" for
// "void Foo::Sm::handleConfig(const Foo::Key&)"); a text without a parameter list is returned
// from its last "::" on.
std::string_view shortFunctionName(std::string_view signature);

// Whether a statement at `level` on `handle` has anything to do.
inline bool active(const Handle& handle, uint32_t level) {
  return RingLog::on() || handle.textOn(level);
}

namespace detail {

const RingLog::MessageInfo& messageIs(const Handle& handle, uint32_t level, const char* file,
                                      uint32_t line, const char* function,
                                      std::vector<RingLog::Item> items);
void emitText(const RingLog::MessageInfo& message, std::string_view text);

template <class T>
void appendText(std::ostream& os, const T& value) {
  if constexpr (RingLog::detail::CharPointer<T>) {
    os << RingLog::detail::orNull(value);
  } else if constexpr (RingLog::detail::Printable<T>) {
    os << value;
  } else {
    os << value.str();
  }
}

template <class... A>
std::string textOf(const RingLog::MessageInfo& message, const A&... args) {
  std::ostringstream os;
  os << message.function << ": ";
  (appendText(os, args), ...);
  return std::move(os).str();
}

// The first occurrence and the text trace are kept out of line, away from the ring's fast path.
template <class... A>
[[gnu::cold, gnu::noinline]] const RingLog::MessageInfo* firstUse(const Handle& handle,
                                                                  uint32_t level, const char* file,
                                                                  uint32_t line,
                                                                  const char* function,
                                                                  A&&... args) {
  return &messageIs(handle, level, file, line, function, RingLog::itemsOf(args...));
}

template <class... A>
[[gnu::noinline]] void traceText(const RingLog::MessageInfo& message, const A&... args) {
  emitText(message, textOf(message, args...));
}

}  // namespace detail

// The per-statement state of a trace statement: its registered message, created on the first
// occurrence that has anything to do. Constant-initialised, so a static costs no guard.
class Message {
 public:
  constexpr Message() = default;

  // Registers the message on first use, then writes the ring record if the ring is on and the
  // text line if the handle's text trace is on for `level`.
  template <class... A>
  void emit(const Handle& handle, uint32_t level, const char* file, uint32_t line,
            const char* function, A&&... args) noexcept {
    if (!message_) [[unlikely]]
      message_ = detail::firstUse(handle, level, file, line, function, args...);
    if (RingLog::on()) RingLog::write(*message_, args...);
    if (handle.textOn(level)) detail::traceText(*message_, args...);
  }

 private:
  const RingLog::MessageInfo* message_ = nullptr;
};

}  // namespace DualLog

// Traces from the calling function, whose unit defines traceHandle(). Arguments are evaluated
// only when a back-end is on; anything thrown inside the statement terminates the process.
#define DUALLOG_TRACE(level, ...) DUALLOG_TRACE_FN(level, __PRETTY_FUNCTION__, __VA_ARGS__)

// As DUALLOG_TRACE, with `function` printed in place of the caller's signature.
#define DUALLOG_TRACE_FN(level, function, ...)                                       \
  do {                                                                               \
    static_assert(unsigned(level) <= ::DualLog::kMaxLevel, "trace levels are 0..9"); \
    static constinit ::DualLog::Message dualLogMessage_;                             \
    const ::DualLog::Handle& dualLogHandle_ = traceHandle();                         \
    if (::DualLog::active(dualLogHandle_, level)) [[unlikely]] {                     \
      const char* dualLogFunction_ = function;                                       \
      [&]() noexcept {                                                               \
        dualLogMessage_.emit(dualLogHandle_, level, __FILE__, __LINE__,              \
                             dualLogFunction_ __VA_OPT__(, ) __VA_ARGS__);           \
      }();                                                                           \
    }                                                                                \
  } while (false)
