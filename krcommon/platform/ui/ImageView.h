#pragma once

// A view that shows an image stretched over its bounds.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/Image.h>
#include <krcommon/platform/ui/View.h>

#include <memory>

namespace krcommon::platform {

class KRCOMMON_EXPORT ImageView : public View {
public:
    /// An empty image view; user interaction off.
    explicit ImageView(const Rect& frame = {});
    /// An image view sized to `image` (in points) at the origin.
    explicit ImageView(std::shared_ptr<Image> image);
    ~ImageView() override;

    /// The image shown; nullptr shows nothing. Setting it leaves the frame as it is.
    [[nodiscard]] const std::shared_ptr<Image>& image() const noexcept { return image_; }
    void setImage(std::shared_ptr<Image> image) noexcept { image_ = std::move(image); }

    /// The image stretched over the bounds; nothing without one.
    void drawContent(GraphicsContext& context) const override;

private:
    std::shared_ptr<Image> image_;
};

}  // namespace krcommon::platform
