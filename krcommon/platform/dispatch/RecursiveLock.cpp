#include <krcommon/platform/dispatch/RecursiveLock.h>

namespace krcommon::platform {

RecursiveLock::RecursiveLock(std::string name) : name_(std::move(name)) {}

}  // namespace krcommon::platform
