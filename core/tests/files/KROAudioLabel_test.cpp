// Labels: times, items by key, properties, and the clipboard through a host's hooks.
#include <gtest/gtest.h>

#include <cmath>

#include "KROAudioLabel.h"
#include "KROClassRegistry.h"
#include "KROLocalizedString.h"

namespace {

std::shared_ptr<KROAudioLabel> label(const char* type, double location, double length) {
    auto label = KROAudioLabel::labelOfType(type);
    label->setLocation(location);
    label->setLength(length);
    return label;
}

// A clipboard of the host, as the tests' host keeps it.
struct TestClipboard {
    std::vector<KROPasteboardItem> items;

    TestClipboard() {
        KROPasteboard::setHost({[this](const std::vector<KROPasteboardItem>& written) {
                                    items = written;
                                    return true;
                                },
                                [this] { return items; }});
    }
    ~TestClipboard() { KROPasteboard::setHost({}); }
};

} // namespace

TEST(KROAudioLabel, StartsEndsAndRanges) {
    const auto moved = label("region", 2, 3);
    moved->setStart(3);
    EXPECT_EQ(moved->length(), 2.0);
    EXPECT_EQ(moved->end(), 5.0);
    const auto ended = label("region", 2, 3);
    ended->setEnd(1);
    EXPECT_EQ(ended->length(), -1.0);
    const NSDoubleRange threeToFour{3, 1};
    // Kept: a label around the whole range does not intersect it.
    EXPECT_FALSE(label("region", 1, 8)->intersectsRange(threeToFour));
    EXPECT_TRUE(label("region", 1, 2)->intersectsRange(threeToFour));
    EXPECT_TRUE(label("region", 3, 1)->isWithinRange(threeToFour));
    EXPECT_FALSE(label("region", 3, 1.5)->isWithinRange(threeToFour));
}

// Any other key is an item, which points back at the label that holds it.
TEST(KROAudioLabel, OtherKeysLiveInItemsInTheOrderFirstSet) {
    const auto marker = label("marker", 1, 0);
    marker->setValue(KROPropertyList("intro"), "name");
    marker->setValue(KROPropertyList(3), "id");
    marker->setValue(KROPropertyList("verse"), "name");
    marker->setValue(KROPropertyList(2.5), "location");
    marker->setValue(std::nullopt, "loopType");
    ASSERT_EQ(marker->countOfMetadata(), 3u);
    EXPECT_EQ(marker->objectInMetadataAtIndex(0)->description(), "name = verse");
    EXPECT_EQ(marker->location(), 2.5);
    EXPECT_EQ(marker->objectInMetadataAtIndex(2)->key(), "loopType");
    EXPECT_EQ(marker->valueForKey("loopType"), std::nullopt);
    const auto item = marker->objectInMetadataAtIndex(1);
    EXPECT_EQ(item->label(), marker.get());
    EXPECT_EQ(marker->indexOfObjectInMetadata(*KROMetadataItem::metadataItemWithValue(3, "id")),
              1u);
    marker->removeObjectFromMetadataAtIndex(1);
    EXPECT_EQ(item->label(), nullptr);
    EXPECT_EQ(marker->valueForKey("id"), std::nullopt);
}

TEST(KROAudioLabel, PropertiesRestoreAnEqualLabel) {
    const auto loop = label("loop", 1.25, 4);
    loop->setValue(KROPropertyList("forward"), "loopType");
    loop->setValue(KROPropertyList(KROData{1, 2}), "data");
    const KROPropertyList properties = loop->properties();
    EXPECT_EQ(*properties.objectForKey("class"), KROPropertyList("KROAudioLabel"));
    const auto restored = std::make_shared<KROAudioLabel>();
    restored->setProperties(properties);
    EXPECT_TRUE(restored->isEqual(*loop));
    EXPECT_TRUE(loop->copy()->isEqual(*loop));

    // The same items in another order make another label.
    const auto reordered = label("loop", 1.25, 4);
    reordered->setValue(KROPropertyList(KROData{1, 2}), "data");
    reordered->setValue(KROPropertyList("forward"), "loopType");
    EXPECT_FALSE(reordered->isEqual(*loop));

    // NaN times become 0, and an item class that is not one falls back.
    KROPropertyList damaged = properties;
    damaged.setObjectForKey("location", std::nan(""));
    KROPropertyList::Array items = *damaged.objectForKey("metadata")->arrayValue();
    items[0].setObjectForKey("class", "KROAudioStream");
    damaged.setObjectForKey("metadata", items);
    restored->setProperties(damaged);
    EXPECT_EQ(restored->location(), 0.0);
    EXPECT_EQ(restored->objectInMetadataAtIndex(0)->className(), "KROAudioLabelMetadataItem");
    EXPECT_EQ(restored->valueForKey("loopType"), KROPropertyList("forward"));
}

TEST(KROAudioLabel, LabelsTravelOnTheClipboardAsXMLPropertyLists) {
    TestClipboard clipboard;
    const auto region = label("region", 0.5, 2);
    region->setValue(KROPropertyList("chorus"), "name");
    ASSERT_TRUE(KROAudioLabel::writeLabelsToPasteboard({region, label("marker", 9, 0)}));
    ASSERT_EQ(clipboard.items.size(), 2u);
    EXPECT_EQ(clipboard.items[0].type, "com.krofile.label");
    const std::string xml(clipboard.items[0].data.begin(), clipboard.items[0].data.end());
    EXPECT_EQ(xml.rfind("<?xml", 0), 0u);
    EXPECT_NE(xml.find("<string>chorus</string>"), std::string::npos);

    clipboard.items.push_back({"public.utf8-plain-text", {'h', 'i'}});
    clipboard.items.push_back(
        {"com.krofile.label", {'n', 'o', 't', ' ', 'a', ' ', 'p', 'l', 'i', 's', 't'}});
    const auto pasted = KROAudioLabel::labelsFromPasteboard();
    ASSERT_EQ(pasted.size(), 2u);
    EXPECT_TRUE(pasted[0]->isEqual(*region));
    EXPECT_EQ(pasted[1]->location(), 9.0);
    EXPECT_FALSE(region->pasteboardPropertyListForType("public.utf8-plain-text"));
}

TEST(KROAudioLabel, NamesComeFromTheStringTable) {
    EXPECT_EQ(label("sync", 0, 0)->typeName(), KROLocalizedString("KROAudioLabel_type_sync"));
    EXPECT_NE(KROMetadataItem::metadataItemWithValue(1, "originatorReference")->title(),
              "KROMetadataItem_originatorReference");
    const std::string description = label("marker", 1.5, 0)->description();
    EXPECT_TRUE(description.starts_with("Label 0x")) << description;
    EXPECT_TRUE(description.ends_with(": type=marker, location=1.50, length=0.00")) << description;
}

// Values that are not text show by their description; dates read back in that form.
TEST(KROMetadataItem, DescriptionsShowValuesAsThePlatformDoes) {
    struct Case {
        KROPropertyList value;
        const char* expected;
    };
    const Case cases[] = {
        {KROPropertyList(0.1), "k = 0.1"},
        {KROPropertyList(true), "k = 1"},
        {KROPropertyList(KRODate(std::chrono::seconds(978307261))),
         "k = 2001-01-01 00:01:01 +0000"},
        {KROPropertyList(KROPropertyList::Array{"a", 2}), "k = (\n    a,\n    2\n)"},
        {KROPropertyList(KROPropertyList::Dictionary{{"x", KROPropertyList::Array{}}}),
         "k = {\n    x = (\n    );\n}"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        EXPECT_EQ(KROMetadataItem::metadataItemWithValue(c.value, "k")->description(), c.expected);
    }
    EXPECT_TRUE(KROMetadataItem::metadataItemWithValue(1, "k")->isEqual(
        *KROAudioLabelMetadataItem::metadataItemWithValue(1, "k")));
    EXPECT_FALSE(KROMetadataItem::metadataItemWithValue(1, "k")->isEqual(
        *KROMetadataItem::metadataItemWithValue(2, "k")));
}
