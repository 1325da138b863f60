#include <krcommon/platform/dispatch/Lock.h>

namespace krcommon::platform {

Lock::Lock(std::string name) : name_(std::move(name)) {}

}  // namespace krcommon::platform
