#include "KROValueMap.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROValueMap, KROObject)
KRO_REGISTER_CLASS(KROValueMapControlPoint, KROObject)

namespace {

constexpr const char* kSegmented = "segmented";
constexpr const char* kLogarithmic = "logarithmic";
constexpr const char* kQuadratic = "quadratic";
constexpr const char* kCubic = "cubic";

// Between low and high, written out so that inconsistent limits (points
// stored out of order) give high instead of undefined behaviour.
double limited(double value, double low, double high) {
    return std::min(std::max(value, low), high);
}

double unit(double value) {
    return limited(value, 0.0, 1.0);
}

// The first point of a curve lies on its left or its bottom edge.
KROPoint onLeftOrBottomEdge(KROPoint point) {
    if (point.x < point.y) {
        point.x = 0.0;
    } else {
        point.y = 0.0;
    }
    return point;
}

// The last point of a curve lies on its right or its top edge.
KROPoint onRightOrTopEdge(KROPoint point) {
    if (point.y < point.x) {
        point.x = 1.0;
    } else {
        point.y = 1.0;
    }
    return point;
}

// A whole number of millionths within 0 to 1: the cubic's test for a root
// that lies on the curve.
bool isOnCurve(double t) {
    const double millionths = std::round(t * 1000000.0);
    return millionths >= 0.0 && millionths <= 1000000.0;
}

} // namespace

std::string KROStringFromPoint(KROPoint point) {
    char text[64];
    std::snprintf(text, sizeof text, "{%.17g, %.17g}", point.x, point.y);
    return text;
}

KROPoint KROPointFromString(const std::string& text) {
    double numbers[2] = {0.0, 0.0};
    const char* cursor = text.c_str();
    for (double& number : numbers) {
        while (*cursor != '\0' && std::strchr("{}, \t\n", *cursor)) {
            ++cursor;
        }
        char* end = nullptr;
        number = std::strtod(cursor, &end);
        if (end == cursor) {
            break;
        }
        cursor = end;
    }
    return {numbers[0], numbers[1]};
}

// The control point.

void KROValueMapControlPoint::reset() {
    if (!map_) {
        return;
    }
    const std::size_t count = map_->countOfControlPoints();
    const std::size_t index = map_->indexOfObjectInControlPoints(*this).value_or(0);
    const float t = count > 1 ? static_cast<float>(index) / static_cast<float>(count - 1) : 0.0f;
    setPoint({t, t});
}

void KROValueMapControlPoint::setPoint(KROPoint point) {
    if (map_) {
        if (const auto index = map_->indexOfObjectInControlPoints(*this)) {
            point = map_->constrainedPoint(point, *index);
        }
    }
    point_ = point;
}

std::optional<KROObjectSpecifier> KROValueMapControlPoint::objectSpecifier() const {
    if (!map_) {
        return std::nullopt;
    }
    const auto index = map_->indexOfObjectInControlPoints(*this);
    if (!index) {
        return std::nullopt;
    }
    return KROObjectSpecifier{"controlPoints", *index};
}

// The map.

const std::vector<std::string>& KROValueMap::types() {
    static const std::vector<std::string> types{kSegmented, kLogarithmic, kQuadratic, kCubic};
    return types;
}

KROValueMap::KROValueMap() {
    setType(kSegmented);
}

KROValueMap::~KROValueMap() {
    for (const auto& point : controlPoints_) {
        if (point->map() == this) {
            point->setMap(nullptr);
        }
    }
}

std::shared_ptr<KROValueMap> KROValueMap::mapWithType(const std::string& type) {
    auto map = std::make_shared<KROValueMap>();
    map->initWithType(type);
    return map;
}

std::shared_ptr<KROValueMap> KROValueMap::copy() const {
    auto copy = std::make_shared<KROValueMap>();
    copy->setProperties(properties());
    return copy;
}

void KROValueMap::reset() {
    for (const auto& point : controlPoints_) {
        point->reset();
    }
}

std::shared_ptr<KROValueMapControlPoint> KROValueMap::makeControlPoint() const {
    auto point = std::dynamic_pointer_cast<KROValueMapControlPoint>(
        KROClassRegistry::sharedRegistry().makeObject(controlPointClass()));
    return point ? point : std::make_shared<KROValueMapControlPoint>();
}

void KROValueMap::setType(const std::string& type) {
    if (type == type_) {
        return;
    }
    type_ = type;
    setCountOfControlPoints(type == kCubic ? 4 : type == kSegmented ? 2 : 3);
}

void KROValueMap::setCountOfControlPoints(std::size_t count) {
    const double first = controlPoints_.empty() ? 0.0 : yAt(0);
    const double last = controlPoints_.empty() ? 1.0 : yAt(controlPoints_.size() - 1);
    while (!controlPoints_.empty()) {
        removeObjectFromControlPointsAtIndex(controlPoints_.size() - 1);
    }
    for (std::size_t index = 0; index < count; ++index) {
        const float t =
            count > 1 ? static_cast<float>(index) / static_cast<float>(count - 1) : 0.0f;
        auto point = makeControlPoint();
        // Placed before it joins the map, so that no rule moves it.
        point->setPoint({t, t * (last - first) + first});
        insertObjectInControlPointsAtIndex(std::move(point), index);
    }
}

std::shared_ptr<KROValueMapControlPoint>
KROValueMap::objectInControlPointsAtIndex(std::size_t index) const {
    return index < controlPoints_.size() ? controlPoints_[index] : nullptr;
}

KROValueMap::ControlPoints KROValueMap::controlPointsAtIndexes(const Indexes& indexes) const {
    ControlPoints points;
    for (const std::size_t index : indexes) {
        if (index < controlPoints_.size()) {
            points.push_back(controlPoints_[index]);
        }
    }
    return points;
}

std::optional<std::size_t>
KROValueMap::indexOfObjectInControlPoints(const KROValueMapControlPoint& point) const {
    for (std::size_t index = 0; index < controlPoints_.size(); ++index) {
        if (controlPoints_[index]->isEqual(point)) {
            return index;
        }
    }
    return std::nullopt;
}

std::shared_ptr<KROValueMapControlPoint> KROValueMap::lastControlPoint() const {
    return controlPoints_.empty() ? nullptr : controlPoints_.back();
}

void KROValueMap::insertObjectInControlPointsAtIndex(std::shared_ptr<KROValueMapControlPoint> point,
                                                     std::size_t index) {
    if (!point) {
        return;
    }
    point->setMap(this);
    index = std::min(index, controlPoints_.size());
    controlPoints_.insert(controlPoints_.begin() + static_cast<std::ptrdiff_t>(index),
                          std::move(point));
}

void KROValueMap::insertControlPointsAtIndexes(const ControlPoints& points,
                                               const Indexes& indexes) {
    auto index = indexes.begin();
    for (const auto& point : points) {
        if (index == indexes.end()) {
            return;
        }
        insertObjectInControlPointsAtIndex(point, *index++);
    }
}

void KROValueMap::removeObjectFromControlPointsAtIndex(std::size_t index) {
    if (index >= controlPoints_.size()) {
        return;
    }
    controlPoints_[index]->setMap(nullptr);
    controlPoints_.erase(controlPoints_.begin() + static_cast<std::ptrdiff_t>(index));
}

void KROValueMap::removeControlPointsAtIndexes(const Indexes& indexes) {
    for (auto index = indexes.rbegin(); index != indexes.rend(); ++index) {
        removeObjectFromControlPointsAtIndex(*index);
    }
}

KROPoint KROValueMap::constrainedPoint(KROPoint point, std::size_t index) const {
    const std::size_t count = controlPoints_.size();
    const bool first = index == 0;
    const bool last = index + 1 == count;
    // The x of another point, or the value given when there is no such point.
    const auto xOr = [&](std::size_t other, double fallback) {
        return other < count ? xAt(other) : fallback;
    };
    if (type_ == kSegmented) {
        point = {unit(point.x), unit(point.y)};
        if (first) {
            point = onLeftOrBottomEdge(point);
            point.x = std::min(point.x, xOr(1, point.x));
        } else if (last) {
            point = onRightOrTopEdge(point);
            point.x = std::max(point.x, xAt(index - 1));
        } else {
            point.x = limited(point.x, xAt(index - 1), xAt(index + 1));
        }
    } else if (type_ == kLogarithmic) {
        point.y = unit(point.y);
        if (index == 0) {
            point.x = std::min({0.0, xOr(1, 0.0), xOr(2, 0.0)});
        } else if (index == 1) {
            point.x = unit(point.x);
            // The middle point is tied to the falling diagonal.
            point.y = 1.0 - point.x;
            point.x = limited(point.x, xAt(0), xOr(2, point.x));
        } else if (index == 2) {
            point.x = std::max({1.0, xAt(0), xAt(1)});
        }
    } else if (type_ == kQuadratic) {
        point.y = unit(point.y);
        point.x = index == 0 ? 0.0 : index == 2 ? 1.0 : unit(point.x);
    } else if (type_ == kCubic) {
        point = {unit(point.x), unit(point.y)};
        if (index == 0) {
            point = onLeftOrBottomEdge(point);
            point.x = std::min({point.x, xOr(1, point.x), xOr(2, point.x), xOr(3, point.x)});
        } else if (index == 1 || index == 2) {
            point.x = limited(point.x, xAt(0), xOr(3, point.x));
        } else if (index == 3) {
            point = onRightOrTopEdge(point);
            point.x = std::max({point.x, xAt(0), xAt(1), xAt(2)});
        }
    }
    return point;
}

float KROValueMap::outputValueForInputValue(float value) const {
    if (type_ == kSegmented) {
        return segmentedOutputValueForInputValue(value);
    }
    if (type_ == kLogarithmic) {
        return logarithmicOutputValueForInputValue(value);
    }
    if (type_ == kQuadratic) {
        return quadraticOutputValueForInputValue(value);
    }
    if (type_ == kCubic) {
        return cubicOutputValueForInputValue(value);
    }
    return value;
}

float KROValueMap::segmentedOutputValueForInputValue(float value) const {
    const std::size_t count = controlPoints_.size();
    if (count < 2) {
        return value;
    }
    // The end tests compare in double; the segment is worked in float.
    if (value <= xAt(0)) {
        return static_cast<float>(yAt(0));
    }
    if (value >= xAt(count - 1)) {
        return static_cast<float>(yAt(count - 1));
    }
    auto px = static_cast<float>(xAt(0));
    auto py = static_cast<float>(yAt(0));
    for (std::size_t index = 1; index < count; ++index) {
        const auto x = static_cast<float>(xAt(index));
        const auto y = static_cast<float>(yAt(index));
        if (x > value) {
            return (y - py) * ((value - px) / (x - px)) + py;
        }
        px = x;
        py = y;
    }
    // Only a NaN input comes here.
    return static_cast<float>(yAt(count - 1));
}

float KROValueMap::logarithmicOutputValueForInputValue(float value) const {
    if (controlPoints_.size() < 3) {
        return value;
    }
    if (value < xAt(0)) {
        return static_cast<float>(yAt(0));
    }
    if (value > xAt(2)) {
        return static_cast<float>(yAt(2));
    }
    // A middle point halfway gives the exponent 1, a straight line; at the
    // ends the exponent is 0.1 and 10.
    const double t = (xAt(1) - xAt(0)) / (xAt(2) - xAt(0));
    const double exponent = std::pow(10.0, 2.0 * t - 1.0);
    const float p = std::pow(value, static_cast<float>(exponent));
    return static_cast<float>(yAt(2) - yAt(0)) * p + static_cast<float>(yAt(0));
}

float KROValueMap::quadraticOutputValueForInputValue(float value) const {
    if (controlPoints_.size() < 3) {
        return value;
    }
    if (value < xAt(0)) {
        return static_cast<float>(yAt(0));
    }
    if (value > xAt(2)) {
        return static_cast<float>(yAt(2));
    }
    // Solves x(t) = 2a t (1 - t) + t^2 for t, then evaluates y(t). A middle
    // x of exactly one half would remove the quadratic term: it is nudged.
    double a = xAt(1);
    if (a == 0.5) {
        a += 1e-07;
    }
    const double b = 2.0 * a;
    double d = 1.0 - b;
    if (d == 0.0) {
        d = DBL_MIN;
    }
    const double v = value;
    const double s = std::sqrt(v * d * 4.0 + b * b);
    double t = (s - b) / (2.0 * d);
    if (std::round(t) < 0.0 || std::round(t) > 1.0) {
        t = (-b - s) / (2.0 * d);
    }
    const double u = 1.0 - t;
    return static_cast<float>(yAt(2) * t * t + 2.0 * yAt(1) * t * u + yAt(0) * u * u);
}

float KROValueMap::cubicOutputValueForInputValue(float value) const {
    if (controlPoints_.size() < 4) {
        return value;
    }
    if (value < xAt(0)) {
        return static_cast<float>(yAt(0));
    }
    if (value > xAt(3)) {
        return static_cast<float>(yAt(3));
    }
    // x(t) as a cubic in t for a curve from x = 0 to x = 1; the inner x are
    // kept off the ends so that the equation never degenerates.
    const double u = std::max(xAt(1), xAt(0) + 1e-07);
    const double w = std::min(xAt(2), xAt(3) - 1e-07);
    const double cx = 3.0 * u;
    const double bx = 3.0 * (w - u) - cx;
    const double ax = 1.0 - cx - bx;
    // t^3 + A t^2 + B t + C = 0, solved by Cardano's and the trigonometric
    // method.
    const double A = bx / ax;
    const double B = cx / ax;
    const double C = -static_cast<double>(value) / ax;
    const double R = (2.0 * A * A * A - 9.0 * A * B + 27.0 * C) / 54.0;
    const double Q = (A * A - 3.0 * B) / 9.0;
    const double D = R * R - Q * Q * Q;
    double t = 0.0;
    if (Q == 0.0 || D > 0.0) {
        double S = std::pow(std::fabs(R) + std::sqrt(D), 1.0 / 3.0);
        if (R >= 0.0) {
            S = -S;
        }
        if (S != 0.0) {
            S += Q / S;
        }
        t = -A / 3.0 + S;
    } else {
        const double theta = std::acos(R / std::sqrt(Q * Q * Q));
        const double m = -2.0 * std::sqrt(Q);
        const double a3 = A / 3.0;
        t = m * std::cos((theta + 12.566370614359172) / 3.0) - a3;
        if (!isOnCurve(t)) {
            t = m * std::cos(theta / 3.0) - a3;
            if (!isOnCurve(t)) {
                t = m * std::cos((theta + 6.283185307179586) / 3.0) - a3;
            }
        }
    }
    const double cy = 3.0 * (yAt(1) - yAt(0));
    const double by = 3.0 * (yAt(2) - yAt(1)) - cy;
    const double ay = yAt(3) - yAt(0) - cy - by;
    return static_cast<float>(yAt(0) + cy * t + by * t * t + ay * t * t * t);
}

KROPropertyList KROValueMap::properties() const {
    KROPropertyList points = KROPropertyList::array();
    for (const auto& point : controlPoints_) {
        points.addObject(KROStringFromPoint(point->point()));
    }
    KROPropertyList properties;
    properties.setObjectForKey("type", type_);
    properties.setObjectForKey("controlPoints", std::move(points));
    return properties;
}

void KROValueMap::setProperties(const KROPropertyList& properties) {
    if (const KROPropertyList* type = properties.objectForKey("type"); type && type->isString()) {
        setType(*type->stringValue());
    }
    const KROPropertyList* const points = properties.objectForKey("controlPoints");
    if (!points || !points->isArray()) {
        return;
    }
    while (!controlPoints_.empty()) {
        removeObjectFromControlPointsAtIndex(controlPoints_.size() - 1);
    }
    for (const KROPropertyList& text : *points->arrayValue()) {
        auto point = makeControlPoint();
        // Set before it joins the map: stored points come back unconstrained.
        point->setPoint(text.isString() ? KROPointFromString(*text.stringValue()) : KROPoint{});
        insertObjectInControlPointsAtIndex(std::move(point), controlPoints_.size());
    }
}
