#include <krcommon/platform/ui/LayoutConstraint.h>

#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/ui/View.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <cxxabi.h>
#include <typeinfo>
#include <unordered_map>
#include <vector>

namespace krcommon::platform {

namespace {

bool isSize(LayoutAttribute a) { return a == LayoutAttribute::Width || a == LayoutAttribute::Height; }
bool isHorizontal(LayoutAttribute a) {
    switch (a) {
        case LayoutAttribute::Left:
        case LayoutAttribute::Right:
        case LayoutAttribute::Leading:
        case LayoutAttribute::Trailing:
        case LayoutAttribute::Width:
        case LayoutAttribute::CenterX: return true;
        default: return false;
    }
}
bool isKnown(LayoutAttribute a) {
    return static_cast<int>(a) >= static_cast<int>(LayoutAttribute::Left) &&
           static_cast<int>(a) <= static_cast<int>(LayoutAttribute::CenterY);
}

const char* nameOf(LayoutAttribute a) {
    switch (a) {
        case LayoutAttribute::NotAnAttribute: return "notAnAttribute";
        case LayoutAttribute::Left: return "left";
        case LayoutAttribute::Right: return "right";
        case LayoutAttribute::Top: return "top";
        case LayoutAttribute::Bottom: return "bottom";
        case LayoutAttribute::Leading: return "leading";
        case LayoutAttribute::Trailing: return "trailing";
        case LayoutAttribute::Width: return "width";
        case LayoutAttribute::Height: return "height";
        case LayoutAttribute::CenterX: return "centerX";
        case LayoutAttribute::CenterY: return "centerY";
    }
    return "?";
}

std::string nameOf(const View* view) {
    if (!view) return "nil";
    const char* mangled = typeid(*view).name();
    int status = 0;
    char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string name = status == 0 && demangled ? demangled : mangled;
    std::free(demangled);
    if (const auto colons = name.rfind("::"); colons != std::string::npos) name.erase(0, colons + 2);
    return format("%s:%p", name, static_cast<const void*>(view));
}

void refuse(const char* why) { throw Exception("NSInvalidArgumentException", why); }

}  // namespace

std::shared_ptr<LayoutConstraint> LayoutConstraint::constraintWithItem(const std::shared_ptr<View>& item,
                                                                       LayoutAttribute attribute,
                                                                       const std::shared_ptr<View>& toItem,
                                                                       LayoutAttribute toAttribute,
                                                                       double multiplier, double constant) {
    if (!item) refuse("Constraint items must each be a view");
    if (!isKnown(attribute)) refuse("Unknown layout attribute");
    if (!std::isfinite(multiplier) || !std::isfinite(constant)) refuse("Constraint multiplier and constant must be finite");
    if (!toItem || toAttribute == LayoutAttribute::NotAnAttribute) {
        if (toItem || toAttribute != LayoutAttribute::NotAnAttribute) {
            refuse("A constraint item and its attribute must be given together");
        }
        if (!isSize(attribute)) refuse("A constraint cannot make a position equal to a constant");
    } else {
        if (!isKnown(toAttribute)) refuse("Unknown layout attribute");
        if (isSize(attribute) != isSize(toAttribute)) refuse("Invalid pairing of a position and a size");
        if (!isSize(attribute) && isHorizontal(attribute) != isHorizontal(toAttribute)) {
            refuse("Invalid pairing of positions on different axes");
        }
    }
    std::shared_ptr<LayoutConstraint> c(new LayoutConstraint);
    c->first_ = item;
    c->firstAttribute_ = attribute;
    c->second_ = toItem;
    c->secondAttribute_ = toItem ? toAttribute : LayoutAttribute::NotAnAttribute;
    c->multiplier_ = multiplier;
    c->constant_ = constant;
    return c;
}

void LayoutConstraint::setConstant(double constant) noexcept {
    if (!std::isfinite(constant)) return;
    constant_ = constant;
    if (auto view = installedOn_.lock()) view->setNeedsLayout();
}

std::string LayoutConstraint::description() const {
    const auto first = first_.lock();
    const auto second = second_.lock();
    std::string text = format("<LayoutConstraint %p: %s.%s == ", static_cast<const void*>(this), nameOf(first.get()),
                              nameOf(firstAttribute_));
    if (secondAttribute_ == LayoutAttribute::NotAnAttribute) return text + format("%g>", constant_);
    return text + format("%s.%s x %g + %g>", nameOf(second.get()), nameOf(secondAttribute_), multiplier_, constant_);
}

// ---------------------------------------------------------------------------
// The solver. Each subview taking part has four unknowns (x, y, width, height);
// every attribute is a linear form of them, and the container's own attributes
// are numbers. The equations are reduced one at a time (Gauss-Jordan), so an
// equation that contradicts the earlier ones is found and dropped where it comes.

namespace {

constexpr double kEpsilon = 1e-9;

struct Row {
    std::vector<double> coefficients;
    double value = 0;
    std::size_t pivot = 0;
};

class System {
public:
    explicit System(std::size_t unknowns) : unknowns_(unknowns) {}

    // Adds an equation; false when it contradicts the ones before.
    bool add(std::vector<double> coefficients, double value) {
        for (const auto& row : rows_) {
            const double factor = coefficients[row.pivot];
            if (factor == 0) continue;
            for (std::size_t j = 0; j < unknowns_; ++j) coefficients[j] -= factor * row.coefficients[j];
            value -= factor * row.value;
        }
        std::size_t pivot = 0;
        double largest = 0;
        for (std::size_t j = 0; j < unknowns_; ++j) {
            if (std::abs(coefficients[j]) > largest) {
                largest = std::abs(coefficients[j]);
                pivot = j;
            }
        }
        if (largest < kEpsilon) return std::abs(value) < 1e-6;  // redundant, or a contradiction
        const double scale = coefficients[pivot];
        for (auto& c : coefficients) c /= scale;
        value /= scale;
        coefficients[pivot] = 1;
        for (auto& row : rows_) {
            const double factor = row.coefficients[pivot];
            if (factor == 0) continue;
            for (std::size_t j = 0; j < unknowns_; ++j) row.coefficients[j] -= factor * coefficients[j];
            row.value -= factor * value;
        }
        rows_.push_back({std::move(coefficients), value, pivot});
        return true;
    }

    // The solution; unknowns no equation settles keep the value in `guess`.
    std::vector<double> solve(std::vector<double> guess) const {
        std::vector<bool> bound(unknowns_, false);
        for (const auto& row : rows_) bound[row.pivot] = true;
        std::vector<double> result = guess;
        for (const auto& row : rows_) {
            double v = row.value;
            for (std::size_t j = 0; j < unknowns_; ++j) {
                if (!bound[j]) v -= row.coefficients[j] * guess[j];
            }
            result[row.pivot] = v;
        }
        return result;
    }

private:
    std::size_t unknowns_;
    std::vector<Row> rows_;
};

enum Unknown : std::size_t { X = 0, Y = 1, W = 2, H = 3 };

// The attribute as coefficients of (x, y, width, height).
std::array<double, 4> formOf(LayoutAttribute a) {
    switch (a) {
        case LayoutAttribute::Left:
        case LayoutAttribute::Leading: return {1, 0, 0, 0};
        case LayoutAttribute::Right:
        case LayoutAttribute::Trailing: return {1, 0, 1, 0};
        case LayoutAttribute::CenterX: return {1, 0, 0.5, 0};
        case LayoutAttribute::Width: return {0, 0, 1, 0};
        case LayoutAttribute::Top: return {0, 1, 0, 0};
        case LayoutAttribute::Bottom: return {0, 1, 0, 1};
        case LayoutAttribute::CenterY: return {0, 1, 0, 0.5};
        case LayoutAttribute::Height: return {0, 0, 0, 1};
        case LayoutAttribute::NotAnAttribute: break;
    }
    return {0, 0, 0, 0};
}

}  // namespace

void LayoutConstraint::solveConstraints(View& view) {
    const auto& subviews = view.subviews();
    std::unordered_map<const View*, std::size_t> indexOf;
    for (std::size_t i = 0; i < subviews.size(); ++i) indexOf.emplace(subviews[i].get(), i);
    const auto takesPart = [&](const View* v) { return v == &view || indexOf.count(v) != 0; };

    std::vector<const LayoutConstraint*> rules;
    const auto collect = [&](const View& owner) {
        for (const auto& c : owner.constraints()) {
            const auto first = c->first_.lock();
            const auto second = c->second_.lock();
            if (!first || (c->secondAttribute_ != LayoutAttribute::NotAnAttribute && !second)) continue;
            if (takesPart(first.get()) && (!second || takesPart(second.get()))) rules.push_back(c.get());
        }
    };
    collect(view);
    for (const auto& subview : subviews) collect(*subview);
    if (rules.empty()) return;

    // The subviews that the rules mention, and the unknowns they bring.
    std::vector<bool> involved(subviews.size(), false);
    for (const auto* rule : rules) {
        for (const auto& item : {rule->first_.lock(), rule->second_.lock()}) {
            if (item && item.get() != &view) involved[indexOf.at(item.get())] = true;
        }
    }
    const std::size_t unknowns = subviews.size() * 4;
    System system(unknowns);
    std::vector<double> guess(unknowns, 0);
    for (std::size_t i = 0; i < subviews.size(); ++i) {
        const Rect f = subviews[i]->frame();
        guess[i * 4 + X] = f.minX();
        guess[i * 4 + Y] = f.minY();
        guess[i * 4 + W] = f.width();
        guess[i * 4 + H] = f.height();
        if (involved[i] && subviews[i]->translatesAutoresizingMaskIntoConstraints()) {
            for (std::size_t k = 0; k < 4; ++k) {
                std::vector<double> row(unknowns, 0);
                row[i * 4 + k] = 1;
                system.add(std::move(row), guess[i * 4 + k]);
            }
        }
    }

    const Rect container = view.bounds();
    const auto containerValue = [&](LayoutAttribute a) {
        const auto form = formOf(a);
        return form[W] * container.width() + form[H] * container.height();  // left and top are 0
    };
    for (const auto* rule : rules) {
        std::vector<double> row(unknowns, 0);
        double value = rule->constant_;
        const auto term = [&](const View* item, LayoutAttribute a, double factor) {
            if (item == &view) {
                value -= factor * containerValue(a);
                return;
            }
            const auto form = formOf(a);
            const std::size_t base = indexOf.at(item) * 4;
            for (std::size_t k = 0; k < 4; ++k) row[base + k] += factor * form[k];
        };
        term(rule->first_.lock().get(), rule->firstAttribute_, 1.0);
        if (rule->secondAttribute_ != LayoutAttribute::NotAnAttribute) {
            term(rule->second_.lock().get(), rule->secondAttribute_, -rule->multiplier_);
        }
        if (!system.add(std::move(row), value)) {
            SystemLog::log("Unable to simultaneously satisfy constraints. Will attempt to recover by breaking "
                           "constraint %s",
                           rule->description());
        }
    }

    const std::vector<double> solution = system.solve(guess);
    for (std::size_t i = 0; i < subviews.size(); ++i) {
        if (!involved[i] || subviews[i]->translatesAutoresizingMaskIntoConstraints()) continue;
        subviews[i]->setFrame(
            {solution[i * 4 + X], solution[i * 4 + Y], solution[i * 4 + W], solution[i * 4 + H]});
    }
}

}  // namespace krcommon::platform
