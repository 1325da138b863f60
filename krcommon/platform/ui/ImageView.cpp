#include <krcommon/platform/ui/ImageView.h>

#include <krcommon/platform/ui/ImageContext.h>

namespace krcommon::platform {

ImageView::ImageView(const Rect& frame) : View(frame) { setUserInteractionEnabled(false); }

ImageView::ImageView(std::shared_ptr<Image> image)
    : ImageView(Rect{{0, 0}, image ? image->size() : Size{}}) {
    image_ = std::move(image);
}

ImageView::~ImageView() = default;

void ImageView::drawContent(GraphicsContext& context) const {
    if (image_) context.drawImage(*image_, {0, 0, frame().width(), frame().height()});
}

}  // namespace krcommon::platform
