#include <krcommon/platform/core/Exception.h>

namespace krcommon::platform {

Exception::Exception(std::string name, std::string reason) : name_(std::move(name)), reason_(std::move(reason)) {}
Exception::~Exception() = default;

InternalInconsistencyException::InternalInconsistencyException(std::string description, std::string function,
                                                               std::string file, std::uint64_t line)
    : Exception("NSInternalInconsistencyException", description),
      description_(std::move(description)),
      function_(std::move(function)),
      file_(std::move(file)),
      line_(line) {}
InternalInconsistencyException::~InternalInconsistencyException() = default;

}  // namespace krcommon::platform
