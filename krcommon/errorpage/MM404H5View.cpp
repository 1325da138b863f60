#include <krcommon/errorpage/MM404H5View.h>

#include <krcommon/errorpage/MM404H5Manager.h>
#include <krcommon/platform/app/Application.h>
#include <krcommon/platform/net/URL.h>
#include <krcommon/platform/ui/Font.h>
#include <krcommon/platform/ui/ImageContext.h>
#include <krcommon/platform/ui/ModuleResources.h>

#include <algorithm>

namespace krcommon {

using platform::AttributedString;
using platform::AttributeName;
using platform::Color;
using platform::ControlStateHighlighted;
using platform::ControlStateNormal;
using platform::Font;
using platform::LayoutAttribute;
using platform::LayoutConstraint;

namespace {

Color rgb255(double red, double green, double blue) {
    return Color::colorWithRed(red / 255.0, green / 255.0, blue / 255.0, 1.0);
}

const Color& textGrey() {
    static const Color color = rgb255(100, 100, 100);
    return color;
}
const Color& refreshBlue() {
    static const Color color = rgb255(15, 151, 255);
    return color;
}
const Color& closeGrey() {
    static const Color color = rgb255(240, 240, 240);
    return color;
}

// The step by which the lighter and darker shades move each of red, green and blue.
constexpr double kShadeStep = 0.1;

}  // namespace

MM404ViewDelegate::~MM404ViewDelegate() = default;
MM404ViewRefreshDelegate::~MM404ViewRefreshDelegate() = default;
MM404ViewCloseDelegate::~MM404ViewCloseDelegate() = default;

std::shared_ptr<MM404H5View> MM404H5View::initWithFrame(const platform::Rect& frame) {
    auto view = std::make_shared<MM404H5View>(Key{}, frame);
    view->doInit();
    return view;
}

MM404H5View::MM404H5View(Key, const platform::Rect& frame) : ScrollView(frame) {}
MM404H5View::~MM404H5View() = default;

std::shared_ptr<MM404H5View> MM404H5View::self() {
    return std::static_pointer_cast<MM404H5View>(shared_from_this());
}

void MM404H5View::doInit() {
    const platform::Rect f = frame();
    setContentSize({f.width(), std::max(f.width(), f.height()) + 100});
    addConstraintToCustomViews();
    updateCustomViewContent();
    updateUserDefinedContent();
    addButtonAction();
}

void MM404H5View::layoutSubviews() {
    ScrollView::layoutSubviews();
    updateCustomViewContent();
}

void MM404H5View::addConstraintToCustomViews() {
    const std::shared_ptr<platform::View> page = shared_from_this();
    const std::shared_ptr<platform::View> image = mm404ImageView();
    const std::shared_ptr<platform::View> title = mm404TitleLable();
    const std::shared_ptr<platform::View> subtitle = mm404SubTitleLable();
    const std::shared_ptr<platform::View> refresh = mm404RefreshButton();
    const std::shared_ptr<platform::View> close = mm404CloseButton();
    for (const auto& view : {image, title, subtitle, refresh, close}) {
        addSubview(view);
        view->setTranslatesAutoresizingMaskIntoConstraints(false);
    }

    const auto rule = [this](const std::shared_ptr<platform::View>& item, LayoutAttribute attribute,
                             const std::shared_ptr<platform::View>& toItem, LayoutAttribute toAttribute,
                             double multiplier, double constant) {
        auto constraint = LayoutConstraint::constraintWithItem(item, attribute, toItem, toAttribute, multiplier, constant);
        addConstraint(constraint);
        return constraint;
    };
    using A = LayoutAttribute;

    rule(image, A::CenterX, page, A::CenterX, 1, 0);
    rule(image, A::Top, page, A::Top, 1, frame().height() * 0.15);
    rule(image, A::Width, page, A::Width, 0.28, 0);
    rule(image, A::Height, page, A::Width, 0.28, 0);

    rule(title, A::CenterX, page, A::CenterX, 1, 0);
    rule(title, A::Top, image, A::Bottom, 1, 10);
    rule(title, A::Width, page, A::Width, 0.8, 0);
    mm404TitleLabelHeightConstraint_ = rule(title, A::Height, nullptr, A::NotAnAttribute, 1, 30);

    rule(subtitle, A::CenterX, page, A::CenterX, 1, 0);
    rule(subtitle, A::Top, title, A::Bottom, 1, 0);
    rule(subtitle, A::Width, page, A::Width, 0.8, 0);
    mm404SubTitleLabelHeightConstraint_ = rule(subtitle, A::Height, nullptr, A::NotAnAttribute, 1, 25);

    rule(refresh, A::CenterX, page, A::CenterX, 1, 0);
    rule(refresh, A::Top, subtitle, A::Bottom, 1, frame().height() * 0.23);
    rule(refresh, A::Width, page, A::Width, 0.67, 0);
    rule(refresh, A::Height, refresh, A::Width, 0.18, 0);

    rule(close, A::CenterX, page, A::CenterX, 1, 0);
    rule(close, A::Top, refresh, A::Bottom, 1, 20);
    rule(close, A::Width, page, A::Width, 0.67, 0);
    rule(close, A::Height, close, A::Width, 0.18, 0);
}

void MM404H5View::updateCustomViewContent() {
    setBackgroundColor(Color::whiteColor());

    mm404ImageView()->setImage(platform::ModuleResources::imageNamed("mm404Image"));

    AttributedString title("网络无法连接");
    title.addAttribute(AttributeName::Font, Font::boldSystemFontOfSize(20), {0, title.length()});
    title.addAttribute(AttributeName::ForegroundColor, textGrey(), {0, title.length()});
    mm404TitleLable()->setAttributedText(title);
    mm404TitleLable()->setTextAlignment(platform::TextAlignment::Center);

    AttributedString subtitle("请检查您的  网络设置");
    subtitle.addAttribute(AttributeName::Font, Font::systemFontOfSize(15), {0, subtitle.length()});
    subtitle.addAttribute(AttributeName::ForegroundColor, textGrey(), {0, subtitle.length()});
    subtitle.addAttribute(AttributeName::ForegroundColor, refreshBlue(), {6, 5});
    mm404SubTitleLable()->setAttributedText(subtitle);
    mm404SubTitleLable()->setTextAlignment(platform::TextAlignment::Center);

    const auto& refresh = mm404RefreshButton();
    refresh->setBackgroundImage(imageFromColor(refreshBlue()), ControlStateNormal);
    refresh->setBackgroundImage(imageFromColor(darkerColorForColor(refreshBlue())), ControlStateHighlighted);
    refresh->setTitle("刷新", ControlStateNormal);
    refresh->titleLabel()->setFont(Font::systemFontOfSize(14));

    const auto& close = mm404CloseButton();
    close->setBackgroundImage(imageFromColor(closeGrey()), ControlStateNormal);
    close->setBackgroundImage(imageFromColor(darkerColorForColor(closeGrey())), ControlStateHighlighted);
    close->setTitle("关闭", ControlStateNormal);
    close->titleLabel()->setFont(Font::systemFontOfSize(14));
    close->setTitleColor(textGrey(), ControlStateNormal);

    // Half the buttons' height, so that their ends are fully round.
    const double radius = frame().width() * 0.67 * 0.18 / 2;
    for (const auto& button : {refresh, close}) {
        button->setCornerRadius(radius);
        button->setClipsToBounds(true);
    }
}

void MM404H5View::updateUserDefinedContent() {
    const auto& manager = MM404H5Manager::sharedManager();
    update404ImageView(manager.image());
    update404Title(manager.attrTitleString());
    update404SubTitle(manager.attrSubtitleString());
    update404RefreshButtonBackgroundColor(manager.refreshButtonBackgroundColor(), manager.refreshButtonTitleColor());
    update404CloseButtonBackgroundColor(manager.closeButtonBackgroundColor(), manager.closeButtonTitleColor());
}

void MM404H5View::update404ImageView(const std::shared_ptr<platform::Image>& image) {
    if (image) mm404ImageView()->setImage(image);
}

void MM404H5View::update404Title(const std::optional<AttributedString>& title) {
    if (title && title->length() > 0) mm404TitleLable()->setAttributedText(title);
}

void MM404H5View::update404SubTitle(const std::optional<AttributedString>& subtitle) {
    if (subtitle && subtitle->length() > 0) mm404SubTitleLable()->setAttributedText(subtitle);
}

void MM404H5View::update404RefreshButtonBackgroundColor(const std::optional<Color>& backgroundColor,
                                                        const std::optional<Color>& titleColor) {
    const auto& button = mm404RefreshButton();
    if (backgroundColor) {
        button->setBackgroundImage(imageFromColor(backgroundColor), ControlStateNormal);
        button->setBackgroundImage(imageFromColor(darkerColorForColor(backgroundColor)), ControlStateHighlighted);
    }
    if (titleColor) button->setTitleColor(titleColor, ControlStateNormal);
}

void MM404H5View::update404CloseButtonBackgroundColor(const std::optional<Color>& backgroundColor,
                                                      const std::optional<Color>& titleColor) {
    const auto& button = mm404CloseButton();
    if (backgroundColor) {
        button->setBackgroundImage(imageFromColor(backgroundColor), ControlStateNormal);
        button->setBackgroundImage(imageFromColor(darkerColorForColor(backgroundColor)), ControlStateHighlighted);
    }
    if (titleColor) button->setTitleColor(titleColor, ControlStateNormal);
}

void MM404H5View::addButtonAction() {
    addRefreshButtonAction();
    addCloseButtonAction();
    addSubtitleLabelTapGestureAction();
}

void MM404H5View::addRefreshButtonAction() {
    mm404RefreshButton()->addTarget(self(), &MM404H5View::onRefreshButtonAction, platform::ControlEventTouchUpInside);
}

void MM404H5View::addCloseButtonAction() {
    mm404CloseButton()->addTarget(self(), &MM404H5View::onCloseButtonAction, platform::ControlEventTouchUpInside);
}

void MM404H5View::addSubtitleLabelTapGestureAction() {
    auto tap = std::make_shared<platform::TapGestureRecognizer>();
    tap->addTarget(self(), &MM404H5View::onSubTitleLabelTapGestureAction);
    mm404SubTitleLable()->setUserInteractionEnabled(true);
    mm404SubTitleLable()->addGestureRecognizer(tap);
}

void MM404H5View::onRefreshButtonAction(platform::Control* /*sender*/) {
    if (auto listener = std::dynamic_pointer_cast<MM404ViewRefreshDelegate>(delegate())) {
        listener->MM404ViewDelegate_RefreshCurrentPage();
    }
}

void MM404H5View::onCloseButtonAction(platform::Control* /*sender*/) {
    if (auto listener = std::dynamic_pointer_cast<MM404ViewCloseDelegate>(delegate())) {
        listener->MM404ViewDelegate_CloseCurrentPage();
    }
}

void MM404H5View::onSubTitleLabelTapGestureAction(platform::TapGestureRecognizer* recognizer) {
    if (!recognizer || recognizer->state() != platform::GestureRecognizerState::Ended) return;
    auto listener =
        std::dynamic_pointer_cast<MM404H5ManagerSubTitleClickDelegate>(MM404H5Manager::sharedManager().delegate());
    if (listener) {
        listener->MM404H5ManagerDelegate_onSubTitleClickAction();
        return;
    }
    platform::Application::shared().openURL(platform::URL::URLWithString(platform::Application::OpenSettingsURLString));
}

void MM404H5View::setIsSubtitleLabelHidden(bool hidden) { mm404SubTitleLable()->setHidden(hidden); }

void MM404H5View::setIsRefreshButtonHidden(bool hidden) { mm404RefreshButton()->setHidden(hidden); }

std::shared_ptr<platform::Image> MM404H5View::imageFromColor(const std::optional<Color>& color) const {
    platform::beginImageContext({1, 1});
    std::shared_ptr<platform::Image> image;
    if (auto* context = platform::getCurrentContext()) {
        if (color) context->setFillColor(*color);
        context->fillRect({0, 0, 1, 1});
        image = platform::getImageFromCurrentImageContext();
    }
    platform::endImageContext();
    return image;
}

std::optional<Color> MM404H5View::lighterColorForColor(const std::optional<Color>& color) const {
    double r = 0, g = 0, b = 0, a = 0;
    if (!color || !color->getRed(r, g, b, a)) return std::nullopt;
    const auto lighter = [](double c) { return c + kShadeStep < 1.0 ? c + kShadeStep : 1.0; };
    return Color::colorWithRed(lighter(r), lighter(g), lighter(b), a);
}

std::optional<Color> MM404H5View::darkerColorForColor(const std::optional<Color>& color) const {
    double r = 0, g = 0, b = 0, a = 0;
    if (!color || !color->getRed(r, g, b, a)) return std::nullopt;
    const auto darker = [](double c) { return c - kShadeStep >= 0.0 ? c - kShadeStep : 0.0; };
    return Color::colorWithRed(darker(r), darker(g), darker(b), a);
}

const std::shared_ptr<platform::ImageView>& MM404H5View::mm404ImageView() {
    if (!mm404ImageView_) mm404ImageView_ = std::make_shared<platform::ImageView>();
    return mm404ImageView_;
}

const std::shared_ptr<platform::Label>& MM404H5View::mm404TitleLable() {
    if (!mm404TitleLable_) mm404TitleLable_ = std::make_shared<platform::Label>();
    return mm404TitleLable_;
}

const std::shared_ptr<platform::Label>& MM404H5View::mm404SubTitleLable() {
    if (!mm404SubTitleLable_) mm404SubTitleLable_ = std::make_shared<platform::Label>();
    return mm404SubTitleLable_;
}

const std::shared_ptr<platform::Button>& MM404H5View::mm404RefreshButton() {
    if (!mm404RefreshButton_) mm404RefreshButton_ = platform::Button::buttonWithType(platform::ButtonType::Custom);
    return mm404RefreshButton_;
}

const std::shared_ptr<platform::Button>& MM404H5View::mm404CloseButton() {
    if (!mm404CloseButton_) mm404CloseButton_ = platform::Button::buttonWithType(platform::ButtonType::Custom);
    return mm404CloseButton_;
}

std::shared_ptr<MM404ViewDelegate> MM404H5View::delegate() const {
    return std::dynamic_pointer_cast<MM404ViewDelegate>(ScrollView::delegate());
}

void MM404H5View::setDelegate(std::weak_ptr<MM404ViewDelegate> delegate) {
    ScrollView::setDelegate(std::weak_ptr<platform::ScrollViewDelegate>(std::move(delegate)));
}

}  // namespace krcommon
