// A transfer curve from one number to another through a few control points
// in the unit square: straight segments ("segmented"), a logarithmic bend
// ("logarithmic"), a quadratic ("quadratic") or a cubic Bézier curve
// ("cubic"). Fades are sampled from it and automations shape their values
// with it. The map and its control points are one family and share this file.
//
// A point in a map obeys the rules of the map's type as it is moved (setPoint);
// a point outside a map, and every point read by setProperties, is stored as
// given, so stored curves come back exactly as they were saved, even outside
// the unit square.
//
// Evaluation allocates nothing and takes no lock; it may run on the render
// thread while nobody edits the map. A curve with fewer points than its type
// reads (2, 3, 3 and 4) passes its input through, as an unknown type does.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KROObject.h"
#include "KROPropertyList.h"

class KROValueMap;

struct KROPoint {
    double x = 0.0;
    double y = 0.0;

    bool operator==(const KROPoint&) const = default;
};

// The platform's point notation, "{x, y}", with 17 significant digits.
std::string KROStringFromPoint(KROPoint point);
// Reads the numbers of "{x, y}" leniently: a number that is missing reads 0.
KROPoint KROPointFromString(const std::string& text);

// A key and an index that name a control point for the host's scripting.
struct KROObjectSpecifier {
    std::string key;
    std::size_t index = 0;
};

class KROValueMapControlPoint : public KROObject {
    KRO_DECLARE_CLASS(KROValueMapControlPoint)

public:
    // Puts the point on the diagonal by its place: (i / (n - 1), i / (n - 1)),
    // in 32-bit, through setPoint.
    void reset();

    // Stored as given without a map; limited by the map's rules inside one.
    virtual void setPoint(KROPoint point);
    KROPoint point() const { return point_; }
    double x() const { return point_.x; }
    void setX(double x) { setPoint({x, point_.y}); }
    double y() const { return point_.y; }
    void setY(double y) { setPoint({point_.x, y}); }

    // Back reference, not owned.
    KROValueMap* map() const { return map_; }
    void setMap(KROValueMap* map) { map_ = map; }

    // "controlPoints" and the point's index; none outside a map.
    std::optional<KROObjectSpecifier> objectSpecifier() const;

private:
    KROValueMap* map_ = nullptr;
    KROPoint point_;
};

class KROValueMap : public KROObject {
    KRO_DECLARE_CLASS(KROValueMap)

public:
    using ControlPoints = std::vector<std::shared_ptr<KROValueMapControlPoint>>;
    // Ascending, unique indexes, as an index set.
    using Indexes = std::set<std::size_t>;

    // The four types, in this order.
    static const std::vector<std::string>& types();
    // The registered class of the points that the map makes.
    virtual std::string controlPointClass() const { return "KROValueMapControlPoint"; }

    // A "segmented" map with the points (0, 0) and (1, 1).
    KROValueMap();
    ~KROValueMap() override;
    KROValueMap(const KROValueMap&) = delete;
    KROValueMap& operator=(const KROValueMap&) = delete;

    static std::shared_ptr<KROValueMap> map() { return std::make_shared<KROValueMap>(); }
    static std::shared_ptr<KROValueMap> mapWithType(const std::string& type);
    void initWithType(const std::string& type) { setType(type); }
    // Always a KROValueMap, given this map's properties.
    std::shared_ptr<KROValueMap> copy() const;

    // Resets every point onto the diagonal.
    void reset();

    // The output for an input, by type; an unknown type gives the input.
    float outputValueForInputValue(float value) const;
    float segmentedOutputValueForInputValue(float value) const;
    float logarithmicOutputValueForInputValue(float value) const;
    float quadraticOutputValueForInputValue(float value) const;
    float cubicOutputValueForInputValue(float value) const;

    // "type" and "controlPoints" (point strings).
    KROPropertyList properties() const;
    // "type" first, through setType; then, when "controlPoints" is present,
    // the points are replaced by the ones read, stored unconstrained.
    void setProperties(const KROPropertyList& properties);

    const std::string& type() const { return type_; }
    // Nothing when equal to the present type. Otherwise 4 points for "cubic",
    // 2 for "segmented", 3 for any other name, laid on the line between the
    // present end levels.
    void setType(const std::string& type);

    std::size_t countOfControlPoints() const { return controlPoints_.size(); }
    // Removes every point and makes count new ones on the line between the
    // y of the old first and last points (0 and 1 with none).
    void setCountOfControlPoints(std::size_t count);
    const ControlPoints& controlPoints() const { return controlPoints_; }
    const ControlPoints& enumeratorOfControlPoints() const { return controlPoints_; }
    // None when out of range.
    std::shared_ptr<KROValueMapControlPoint> objectInControlPointsAtIndex(std::size_t index) const;
    ControlPoints controlPointsAtIndexes(const Indexes& indexes) const;
    std::optional<std::size_t>
    indexOfObjectInControlPoints(const KROValueMapControlPoint& point) const;
    std::shared_ptr<KROValueMapControlPoint> lastControlPoint() const;

    // Set the map on each new point, then change the list so that each ends
    // at its index; an index past the end appends.
    void insertObjectInControlPointsAtIndex(std::shared_ptr<KROValueMapControlPoint> point,
                                            std::size_t index);
    void insertControlPointsAtIndexes(const ControlPoints& points, const Indexes& indexes);
    // Clear the map of each point removed, then change the list; indexes
    // past the end are ignored.
    void removeObjectFromControlPointsAtIndex(std::size_t index);
    void removeControlPointsAtIndexes(const Indexes& indexes);

    // The rules of setPoint for the point at index, by type.
    KROPoint constrainedPoint(KROPoint point, std::size_t index) const;

private:
    std::shared_ptr<KROValueMapControlPoint> makeControlPoint() const;
    double xAt(std::size_t index) const { return controlPoints_[index]->x(); }
    double yAt(std::size_t index) const { return controlPoints_[index]->y(); }

    std::string type_;
    ControlPoints controlPoints_;
};
