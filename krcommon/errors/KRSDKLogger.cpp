#include <krcommon/errors/KRSDKLogger.h>

#include <krcommon/platform/app/SystemLog.h>

#include <mutex>

#ifndef KRCOMMON_DEBUG_LOG
#define KRCOMMON_DEBUG_LOG 1
#endif

namespace krcommon {

namespace {

// The class-wide recursive lock under which lines are labelled, formatted and written.
std::recursive_mutex& classLock() {
    static std::recursive_mutex* mutex = new std::recursive_mutex;  // usable during exit
    return *mutex;
}

}  // namespace

KRSDKLogger& KRSDKLogger::instance() {
    static KRSDKLogger* logger = [] {
        auto* created = new KRSDKLogger;  // lives until the process ends
        created->setIsDebugModel(true);
        return created;
    }();
    return *logger;
}

void KRSDKLogger::enableDebugLog(bool enable) { instance().setIsDebugModel(enable); }

bool KRSDKLogger::buildDebugSwitch() noexcept { return KRCOMMON_DEBUG_LOG != 0; }

std::string_view KRSDKLogger::descriptionForLevel(std::int32_t level) noexcept {
    switch (level) {
        case 0:
        case 1: return "DEBUG";
        case 2: return "ERROR";
        case 3: return "SERIOUS";
        default: return "";
    }
}

void KRSDKLogger::logv(std::string_view file, std::string_view /*function*/, std::uint64_t line,
                       std::optional<std::string_view> prefix, std::int32_t level, std::string_view format,
                       std::span<const platform::FormatArg> args) {
    if (!(buildDebugSwitch() || instance().isDebugModel() || level == 3)) return;

    std::lock_guard guard(classLock());
    const std::string_view label = descriptionForLevel(level);
    // "[KRSDK-%@-%@-%s-%ld]=>%@", built in one buffer that lives on the stack
    // for every line shorter than its inline capacity.
    fmt::memory_buffer out;
    constexpr std::string_view open = "[KRSDK-";
    out.append(open.data(), open.data() + open.size());
    if (prefix) out.append(prefix->data(), prefix->data() + prefix->size());
    out.push_back('-');
    out.append(label.data(), label.data() + label.size());
    out.push_back('-');
    out.append(file.data(), file.data() + file.size());
    out.push_back('-');
    fmt::format_to(std::back_inserter(out), "{}", static_cast<long>(line));
    constexpr std::string_view arrow = "]=>";
    out.append(arrow.data(), arrow.data() + arrow.size());
    platform::vformatTo(out, format, args);
    // The write is the last step under the lock, so lines keep the order of
    // their calls; the lock goes as soon as the sink returns (which may be
    // after a wait, when stderr is a full pipe).
    platform::SystemLog::write(std::string_view(out.data(), out.size()));
}

}  // namespace krcommon
