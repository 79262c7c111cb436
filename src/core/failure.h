// Failures travel inside the library as raised objects carrying a text: the
// producer's own text or a fixed one. The layer that catches one logs the
// text under its own name and turns it into a result code.
#pragma once

#include <cstdio>
#include <cstring>

namespace kivcam::core {

class Failure {
 public:
  Failure() { text_[0] = '\0'; }
  explicit Failure(const char* text) { std::snprintf(text_, sizeof text_, "%s", text ? text : ""); }
  // Empty text is logged as "Other Error".
  const char* text() const { return text_[0] ? text_ : "Other Error"; }
  bool has_text() const { return text_[0] != '\0'; }

 private:
  char text_[128];  // the size of the producers' own error texts
};

}  // namespace kivcam::core
