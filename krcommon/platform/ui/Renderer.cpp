#include <krcommon/platform/ui/Renderer.h>

#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/ui/ImageContext.h>

namespace krcommon::platform {

namespace {

void drawTree(const View& view, GraphicsContext& context, Point parentOrigin) {
    if (view.isHidden() || view.alpha() < 0.01) return;
    const Rect frame = view.frame();
    const Rect own{0, 0, frame.width(), frame.height()};
    context.saveGState();
    context.translateCTM(frame.minX() - parentOrigin.x, frame.minY() - parentOrigin.y);
    const bool layer = view.alpha() < 1.0;
    if (layer) context.beginTransparencyLayer(view.alpha());
    if (const auto& background = view.backgroundColor()) {
        context.setFillColor(*background);
        context.fillRoundedRect(own, view.cornerRadius());
    }
    if (view.clipsToBounds()) context.clipToRoundedRect(own, view.cornerRadius());
    view.drawContent(context);
    const Point origin = view.bounds().origin;
    for (const auto& subview : view.subviews()) drawTree(*subview, context, origin);
    if (layer) context.endTransparencyLayer();
    context.restoreGState();
}

}  // namespace

std::shared_ptr<Image> Renderer::renderImage(View& view, double scale) {
    view.layoutIfNeeded();
    const Rect frame = view.frame();
    beginImageContextWithOptions(frame.size, false, scale);
    if (GraphicsContext* context = getCurrentContext()) {
        // The root is drawn at the canvas origin, whatever its own position.
        drawTree(view, *context, frame.origin);
    }
    return endImageContextTakingImage();
}

bool Renderer::renderToPNG(View& view, const std::filesystem::path& path, double scale) {
    const auto image = renderImage(view, scale);
    if (!image) {
        SystemLog::log("Renderer: nothing to draw for a view of %g x %g points", view.frame().width(),
                       view.frame().height());
        return false;
    }
    return image->writeToFile(path);
}

}  // namespace krcommon::platform
