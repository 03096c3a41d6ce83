// A marked point or span of a recording, in seconds: a marker, region, loop,
// slice, sync point, event, chapter, disc track or index. It belongs to no
// file format; the handlers turn chunk entries into labels and back. All
// else a format defines (a name, a loop type ...) hangs on the label as
// metadata items reached by key: valueForKey("name"). Labels travel on the
// clipboard as XML property lists of the type "com.krofile.label". A label
// has no lock and belongs to one thread at a time.
//
// setValue:forKey: and setValue:forUndefinedKey: share a first keyword and
// arguments, so the second is setValueForUndefinedKey.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KROAudioLabelMetadataItem.h"
#include "KROPasteboard.h"
#include "KRORange.h"

class KROAudioLabel : public KROObject, public KROPasteboardWriting, public KROPasteboardReading {
    KRO_DECLARE_CLASS(KROAudioLabel)

public:
    using Items = std::vector<std::shared_ptr<KROAudioLabelMetadataItem>>;

    // The one clipboard type of labels, for reading and writing.
    static constexpr const char* pasteboardType = "com.krofile.label";

    KROAudioLabel() = default;
    // Items are copied, not shared: each points back at its own label.
    KROAudioLabel(const KROAudioLabel&) = delete;
    KROAudioLabel& operator=(const KROAudioLabel&) = delete;
    ~KROAudioLabel() override;

    // A new label of that type at 0 with length 0 and no items.
    static std::shared_ptr<KROAudioLabel> labelOfType(std::string type);

    const std::string& type() const { return type_; }
    void setType(std::string type) { type_ = std::move(type); }
    double location() const { return location_; }
    void setLocation(double location) { location_ = location; }
    // 0 for a point; a negative length is kept as it is.
    double length() const { return length_; }
    void setLength(double length) { length_ = length; }

    double start() const { return location_; }
    // Moves the start and keeps the end.
    void setStart(double start);
    double end() const { return location_ + length_; }
    // Moves the end and keeps the start.
    void setEnd(double end);

    // Start and end both lie in the closed range.
    bool isWithinRange(NSDoubleRange range) const;
    // Start or end lies in the closed range. Kept: a label that encloses the
    // whole range does not intersect it; hosts select by edges.
    bool intersectsRange(NSDoubleRange range) const;

    // ---- The metadata items, in the order in which they were first set
    const Items& metadata() const { return metadata_; }
    std::size_t countOfMetadata() const { return metadata_.size(); }
    // Null past the end.
    std::shared_ptr<KROAudioLabelMetadataItem> objectInMetadataAtIndex(std::size_t index) const;
    // The index of the first item equal to the given one.
    std::optional<std::size_t> indexOfObjectInMetadata(const KROMetadataItem& item) const;
    // Points the item at this label; an index past the end appends.
    void insertObjectInMetadataAtIndex(std::shared_ptr<KROAudioLabelMetadataItem> item,
                                       std::size_t index);
    // Clears the item's label; an index past the end does nothing.
    void removeObjectFromMetadataAtIndex(std::size_t index);

    // ---- Key-value access: type, location, length and metadata are the
    // label's own; any other key is the value of the first item with it.

    // Null when no item has the key or its value is empty.
    const KROPropertyList* valueForUndefinedKey(std::string_view key) const;
    // Sets the first item with the key, or appends a new item.
    void setValueForUndefinedKey(std::optional<KROPropertyList> value, std::string_view key);
    // type as a string, location and length as reals, metadata as the array
    // of the items' properties; other keys as valueForUndefinedKey.
    std::optional<KROPropertyList> valueForKey(std::string_view key) const;
    // A value of the wrong kind for type, location, length or metadata is
    // ignored.
    void setValue(std::optional<KROPropertyList> value, std::string_view key);

    // ---- Properties: class, type, location, length and metadata (an array of
    // the items' properties).
    KROPropertyList properties() const;
    // A location or length that is missing or NaN becomes 0. Each item is made
    // of the class its dictionary names, or a KROAudioLabelMetadataItem when
    // that names no such class.
    void setProperties(const KROPropertyList& properties);

    // The localized name of the type: the text of the class name, "_type_"
    // and the type ("KROAudioLabel_type_marker").
    std::string typeName() const;

    // Any KROAudioLabel with equal type, location, length, and equal items in
    // the same order.
    bool isEqual(const KROObject& other) const override;
    std::size_t hash() const override;
    // A new label of the same class through properties.
    std::shared_ptr<KROAudioLabel> copy() const;
    // "Label 0x...: type=marker, location=1.50, length=0.00"
    std::string description() const override;

    // ---- Clipboard
    static std::vector<std::string> readableTypesForPasteboard();
    std::vector<std::string> writableTypesForPasteboard() const override;
    // The properties as an XML property list for the label type; none for others.
    std::optional<KROData> pasteboardPropertyListForType(const std::string& type) const override;
    // For the label type, the properties read from an XML or binary property
    // list; a label of another type, or bytes that are no property list,
    // leave the label as it was and answer false.
    bool initWithPasteboardPropertyList(const KROData& data, const std::string& type) override;

    // The labels onto the host's clipboard, and back.
    static bool writeLabelsToPasteboard(const std::vector<std::shared_ptr<KROAudioLabel>>& labels);
    static std::vector<std::shared_ptr<KROAudioLabel>> labelsFromPasteboard();

private:
    std::shared_ptr<KROAudioLabelMetadataItem> itemForKey(std::string_view key) const;
    void removeAllMetadata();
    void setMetadataProperties(const KROPropertyList& array);

    std::string type_;
    double location_ = 0.0;
    double length_ = 0.0;
    Items metadata_;
};
