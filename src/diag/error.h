// The one way a failure travels inside the library: the code the caller's
// last error becomes and, when there is one, the text that the layer which
// catches it writes to the call log under its own name (a producer's own
// text, or a fixed one such as "DataStreams Error"). It is a standard runtime
// error, so a port failure passes through the node map unchanged.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "kivcam/kivcam.h"

namespace kivcam {

class Error : public std::runtime_error {
 public:
  // A code alone: the caller sees it, the call log gets no text.
  explicit Error(uint32_t code) : std::runtime_error(std::string()), code_(code) {}
  Error(uint32_t code, const std::string& text) : std::runtime_error(text), code_(code) {}

  uint32_t code() const { return code_; }
  bool has_text() const { return what()[0] != '\0'; }

 private:
  uint32_t code_;
};

// The text logged for a failure that brought none.
constexpr const char kOtherErrorText[] = "Other Error";

// An unexpected failure (99) with its text.
inline Error Failure(const std::string& text) {
  return Error(KIVCAM_ERR_OTHER, text.empty() ? std::string(kOtherErrorText) : text);
}

// The text the catching layer logs for any exception: an Error's own text,
// else "Other Error".
inline const char* LogText(const Error& e) { return e.has_text() ? e.what() : kOtherErrorText; }

}  // namespace kivcam
