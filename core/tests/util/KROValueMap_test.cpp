// Value maps: curves against their closed forms, point rules, saved curves.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "KROValueMap.h"

namespace {

KROPropertyList curve(const char* type, std::vector<KROPoint> points) {
    KROPropertyList strings = KROPropertyList::array();
    for (const KROPoint& point : points) {
        strings.addObject(KROStringFromPoint(point));
    }
    KROPropertyList properties;
    properties.setObjectForKey("type", type);
    properties.setObjectForKey("controlPoints", strings);
    return properties;
}

std::shared_ptr<KROValueMap> mapWith(const KROPropertyList& properties) {
    auto map = KROValueMap::map();
    map->setProperties(properties);
    return map;
}

// A Bézier curve's point at t, from its control points.
KROPoint bezier(const std::vector<KROPoint>& p, double t) {
    const double u = 1.0 - t;
    if (p.size() == 3) {
        return {u * u * p[0].x + 2 * u * t * p[1].x + t * t * p[2].x,
                u * u * p[0].y + 2 * u * t * p[1].y + t * t * p[2].y};
    }
    const auto at = [&](double a, double b, double c, double d) {
        return u * u * u * a + 3 * u * u * t * b + 3 * u * t * t * c + t * t * t * d;
    };
    return {at(p[0].x, p[1].x, p[2].x, p[3].x), at(p[0].y, p[1].y, p[2].y, p[3].y)};
}

} // namespace

// 1001 inputs (or Bézier parameters, whose x the map must solve for) per curve.
TEST(KROValueMap, EachCurveFollowsItsClosedFormAt1001Points) {
    struct Case {
        const char* what;
        const char* type;
        std::vector<KROPoint> points;
        double tolerance;
    };
    const std::vector<KROPoint> segments{{0, 0.2}, {0.3, 0.9}, {0.6, 0.5}, {1, 0.1}};
    const std::vector<KROPoint> bend{{0, 0.1}, {0.8, 0.2}, {1, 0.9}};
    const Case cases[] = {
        {"segmented", "segmented", segments, 2e-7},
        {"logarithmic", "logarithmic", bend, 2e-6},
        {"quadratic", "quadratic", {{0, 0.9}, {0.2, 0.1}, {1, 0.4}}, 1e-6},
        {"cubic", "cubic", {{0, 0}, {0.1, 0.9}, {0.7, 0.05}, {1, 1}}, 1e-5},
        {"cubic with an S", "cubic", {{0, 1}, {0.9, 1}, {0.1, 0}, {1, 0}}, 1e-5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto map = mapWith(curve(c.type, c.points));
        for (int i = 0; i <= 1000; ++i) {
            const double s = i / 1000.0;
            KROPoint expected{s, 0.0};
            const std::string type = c.type;
            if (type == "segmented") {
                std::size_t k = 1;
                while (k + 1 < c.points.size() && c.points[k].x < s) {
                    ++k;
                }
                const KROPoint a = c.points[k - 1];
                const KROPoint b = c.points[k];
                expected.y = a.y + (b.y - a.y) * (s - a.x) / (b.x - a.x);
            } else if (type == "logarithmic") {
                const double bendAt = (bend[1].x - bend[0].x) / (bend[2].x - bend[0].x);
                expected.y = bend[0].y + (bend[2].y - bend[0].y) *
                                             std::pow(s, std::pow(10.0, 2.0 * bendAt - 1.0));
            } else {
                expected = bezier(c.points, s);
            }
            EXPECT_NEAR(map->outputValueForInputValue(static_cast<float>(expected.x)), expected.y,
                        c.tolerance)
                << "at " << expected.x;
        }
    }
}

// A point moved inside a map stays where its type allows.
TEST(KROValueMap, APointInAMapObeysTheRulesOfItsType) {
    struct Case {
        const char* what;
        const char* type;
        std::size_t index;
        KROPoint asked;
        KROPoint stored;
    };
    // clang-format off
    const Case cases[] = {
        {"first point goes to the left edge", "segmented", 0, {0.3, 0.8}, {0, 0.8}},
        {"first point goes to the bottom, up to the next x", "segmented", 0, {0.8, 0.3}, {0.5, 0}},
        {"last point goes to the top edge", "segmented", 2, {0.2, 0.6}, {0.5, 1}},
        {"last point goes to the right edge", "segmented", 2, {0.9, 0.1}, {1, 0.1}},
        {"a middle point stays between its neighbours", "segmented", 1, {2.0, -1.0}, {1, 0}},
        {"logarithmic middle point on the falling diagonal", "logarithmic", 1, {0.25, 0.9}, {0.25, 0.75}},
        {"logarithmic ends keep their x", "logarithmic", 2, {0.4, 1.7}, {1, 1}},
        {"quadratic ends keep their x", "quadratic", 0, {0.4, 0.3}, {0, 0.3}},
        {"cubic inner points stay between the ends", "cubic", 2, {0.95, 0.5}, {0.9, 0.5}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto map = mapWith(curve(c.type, {{0, 0}, {0.5, 0.5}, {1, 1}}));
        if (std::string(c.type) == "cubic") {
            map->setProperties(curve("cubic", {{0.2, 0}, {0.3, 0}, {0.6, 1}, {0.9, 1}}));
        }
        map->objectInControlPointsAtIndex(c.index)->setPoint(c.asked);
        EXPECT_EQ(map->objectInControlPointsAtIndex(c.index)->point(), c.stored);
    }
}

TEST(KROValueMap, ChangingTheTypeKeepsTheEndLevelsOnAStraightLine) {
    const auto map = KROValueMap::map();
    EXPECT_EQ(map->outputValueForInputValue(0.25f), 0.25f);
    map->objectInControlPointsAtIndex(0)->setPoint({0, 0.2});
    map->lastControlPoint()->setPoint({1, 0.8});
    map->setType("cubic");
    ASSERT_EQ(map->countOfControlPoints(), 4u);
    for (std::size_t i = 0; i < 4; ++i) {
        const float t = static_cast<float>(i) / 3.0f;
        EXPECT_EQ(map->objectInControlPointsAtIndex(i)->x(), t);
        EXPECT_NEAR(map->objectInControlPointsAtIndex(i)->y(), 0.2 + 0.6 * t, 1e-7);
    }
}

// Saved curves come back exactly; short, unknown or odd curves answer without harm.
TEST(KROValueMap, PropertiesComeBackUnconstrainedAndBadCurvesAnswerSafely) {
    const auto outside = curve("segmented", {{-0.5, 2}, {0.5, -1}, {1.5, 3}});
    const auto map = mapWith(outside);
    EXPECT_EQ(map->properties(), outside);
    EXPECT_EQ(map->copy()->properties(), outside);
    EXPECT_EQ(KROStringFromPoint({0.25, 1}), "{0.25, 1}");
    EXPECT_EQ(KROPointFromString("{0.5,"), (KROPoint{0.5, 0}));
    EXPECT_FLOAT_EQ(map->outputValueForInputValue(0.0f), 0.5f);

    struct Case {
        const char* what;
        KROPropertyList properties;
        float input;
        float output;
    };
    // clang-format off
    const Case cases[] = {
        {"an unknown type passes the input", curve("wobbly", {{0, 1}, {1, 0}}), 0.3f, 0.3f},
        {"a cubic with two points passes the input", curve("cubic", {{0, 1}, {1, 0}}), 0.3f, 0.3f},
        {"a segmented map with no points passes the input", curve("segmented", {}), 0.7f, 0.7f},
        {"the last x gives the last y", curve("segmented", {{0, 0}, {0.5, 0.2}, {1, 0.6}}), 1.0f, 0.6f},
        {"quadratic with its middle x at one half is straight", curve("quadratic", {{0, 0}, {0.5, 0.5}, {1, 1}}), 0.3f, 0.3f},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_NEAR(mapWith(c.properties)->outputValueForInputValue(c.input), c.output, 1e-6);
    }
    for (const char* type : {"segmented", "logarithmic", "quadratic", "cubic"}) {
        const auto degenerate = mapWith(curve(type, {{1, 0}, {1, 0}, {0, 1}, {0, 1}}));
        for (const float input : {std::numeric_limits<float>::quiet_NaN(), -1.0f, 0.5f, 2.0f}) {
            degenerate->outputValueForInputValue(input);
        }
    }
}
