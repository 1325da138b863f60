#pragma once

// Draws a view tree into an image or a PNG file, so that a page can be looked
// at off the device. Each view draws, in its frame: its background (with its
// corner radius), its content, then its subviews in order; hidden views and
// views with no opacity are skipped, a view that clips clips its content and
// subviews to its rounded bounds, a partly transparent view is composited as
// a whole.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/Image.h>
#include <krcommon/platform/ui/View.h>

#include <filesystem>
#include <memory>

namespace krcommon::platform {

class KRCOMMON_EXPORT Renderer {
public:
    /// Runs the pending layout of `view` (as the screen would before showing it), then
    /// draws it at `scale` pixels per point (0: the screen's scale) on a transparent
    /// canvas of its size. nullptr for a view without area.
    static std::shared_ptr<Image> renderImage(View& view, double scale = 0);
    /// As renderImage(), written to `path` as PNG. False, with a system-log line, when
    /// the view has no area or the file cannot be written.
    static bool renderToPNG(View& view, const std::filesystem::path& path, double scale = 0);

    Renderer() = delete;
};

}  // namespace krcommon::platform
