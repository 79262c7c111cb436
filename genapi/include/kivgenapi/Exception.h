// The engine's exception family. Every node-level error names the node.
#pragma once

#include <exception>
#include <string>

#include "kivgenapi/Types.h"

namespace KivGenApi {

class KIVGENAPI_API GenericException : public std::exception {
 public:
  GenericException(const std::string& description, const char* file = "", unsigned line = 0,
                   const char* type = "GenericException", const std::string& node = std::string());
  const char* GetDescription() const noexcept { return description_.c_str(); }
  const char* GetSourceFileName() const noexcept { return file_.c_str(); }
  unsigned GetSourceLine() const noexcept { return line_; }
  const char* GetNodeName() const noexcept { return node_.c_str(); }
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  std::string description_, file_, node_, what_;
  unsigned line_;
};

#define KIVGENAPI_EXCEPTION_CLASS(Name)                                                          \
  class KIVGENAPI_API Name : public GenericException {                                                   \
   public:                                                                                       \
    Name(const std::string& description, const char* file = "", unsigned line = 0,               \
         const std::string& node = std::string())                                                \
        : GenericException(description, file, line, #Name, node) {}                              \
  };
KIVGENAPI_EXCEPTION_CLASS(BadAllocException)
KIVGENAPI_EXCEPTION_CLASS(InvalidArgumentException)
KIVGENAPI_EXCEPTION_CLASS(OutOfRangeException)
KIVGENAPI_EXCEPTION_CLASS(PropertyException)
KIVGENAPI_EXCEPTION_CLASS(RuntimeException)
KIVGENAPI_EXCEPTION_CLASS(LogicalErrorException)
KIVGENAPI_EXCEPTION_CLASS(AccessException)
KIVGENAPI_EXCEPTION_CLASS(TimeoutException)
KIVGENAPI_EXCEPTION_CLASS(DynamicCastException)
#undef KIVGENAPI_EXCEPTION_CLASS

}  // namespace KivGenApi
